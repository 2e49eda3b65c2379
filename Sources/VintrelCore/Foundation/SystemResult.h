#pragma once

#include <cerrno>
#include <string>
#include <utility>

/// Why the system refused something: its error number, or 0 when it did not.
class SystemError {
public:
    SystemError() = default;
    explicit SystemError(int number)
        : number_(number)
    {
    }
    /// What `errno` holds now.
    static SystemError last() { return SystemError(errno); }

    explicit operator bool() const { return number_ != 0; }
    int number() const { return number_; }
    /// Danish words for it; of a rare one the system's own, escaped.
    std::string message() const;

private:
    int number_ = 0;
};

/// A value, or the reason why there is none.
template <class Value> class [[nodiscard]] SystemResult {
public:
    SystemResult(Value value)
        : value_(std::move(value))
    {
    }
    SystemResult(SystemError error)
        : error_(error)
    {
    }

    explicit operator bool() const { return !error_; }
    SystemError error() const { return error_; }
    Value& operator*() { return value_; }
    const Value& operator*() const { return value_; }
    Value* operator->() { return &value_; }
    const Value* operator->() const { return &value_; }

private:
    Value value_ {};
    SystemError error_;
};
