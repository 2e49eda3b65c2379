#include "VintrelCore/Devices/PropertyList/PropertyList.h"

#include "VintrelCore/Foundation/Text.h"

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
    return is(Kind::number) ? Text::number(list_->nodes_[*node_].text).value_or(0) : 0;
}
