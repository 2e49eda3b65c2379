int placeholder2_;
