#include "VintrelCLI/Options.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

namespace {

bool isValue(std::string_view argument) { return !argument.empty() && !argument.starts_with("--"); }

std::string folded(std::string_view text)
{
    std::string result;
    while (!text.empty())
        Unicode::append(result, Unicode::foldedCase(Unicode::takeFirst(text)));
    return result;
}

} // namespace

std::vector<std::string> Options::values(std::string_view option) const
{
    std::vector<std::string> values;
    for (std::size_t i = 0; i + 1 < arguments_.size(); ++i)
        if (arguments_[i] == option && isValue(arguments_[i + 1]))
            values.push_back(arguments_[i + 1]);
    return values;
}

std::vector<std::string> Options::words(std::string_view option) const
{
    std::vector<std::string> words;
    for (const auto& value : values(option)) {
        std::string_view rest = value;
        while (!rest.empty()) {
            const auto word = rest.substr(0, rest.find(','));
            rest.remove_prefix(std::min(word.size() + 1, rest.size()));
            if (const auto trimmed = Unicode::trimmed(word); !trimmed.empty())
                words.push_back(folded(trimmed));
        }
    }
    return words;
}

bool Options::lacksValue(std::string_view option) const
{
    for (std::size_t i = 0; i < arguments_.size(); ++i)
        if (arguments_[i] == option && (i + 1 == arguments_.size() || !isValue(arguments_[i + 1])))
            return true;
    return false;
}
