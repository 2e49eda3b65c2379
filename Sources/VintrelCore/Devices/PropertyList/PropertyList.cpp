#include "VintrelCore/Devices/PropertyList/PropertyList.h"

#include <algorithm>
#include <charconv>

PropertyList::Value PropertyList::Value::operator[](std::string_view key) const
{
    if (is(Kind::dictionary))
        for (const std::size_t child : list_->nodes_[*node_].children)
            if (list_->nodes_[child].key == key)
                return { list_, child };
    return { list_, std::nullopt };
}

std::vector<PropertyList::Value> PropertyList::Value::items() const
{
    std::vector<Value> values;
    if (is(Kind::array))
        for (const std::size_t child : list_->nodes_[*node_].children)
            values.push_back({ list_, child });
    return values;
}

std::string PropertyList::Value::text() const
{
    return is(Kind::text) ? list_->nodes_[*node_].text : std::string();
}

std::uint64_t PropertyList::Value::number() const
{
    if (!is(Kind::number))
        return 0;
    const auto& digits = list_->nodes_[*node_].text;
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return error == std::errc() && end == digits.data() + digits.size() ? value : 0;
}
