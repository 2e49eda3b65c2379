int placeholder_;
