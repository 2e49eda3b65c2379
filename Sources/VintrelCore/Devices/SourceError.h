#pragma once

#include "VintrelCore/Foundation/SystemResult.h"

#include <stdexcept>
#include <string>

/// Why a source could not be opened. what() is the Danish sentence for the user.
class SourceError : public std::runtime_error {
public:
    enum class Kind { openFailed, authorizationFailed, notFound, attachFailed };

    /// The sentence ends in the system's own words for its error.
    static SourceError openFailed(const std::string& path, SystemError error);
    static SourceError authorizationFailed(const std::string& deviceName);
    static SourceError notFound(const std::string& path);
    static SourceError attachFailed(const std::string& message);

    Kind kind() const { return kind_; }
    /// What the system said; no error where it was not asked.
    SystemError systemError() const { return systemError_; }

private:
    SourceError(Kind kind, const std::string& description, SystemError error = {})
        : std::runtime_error(description)
        , kind_(kind)
        , systemError_(error)
    {
    }

    Kind kind_;
    SystemError systemError_;
};
