// Reads property lists with libxml2.

#include "VintrelCore/Devices/PropertyList/PropertyList.h"

#include <libxml/xmlreader.h>

#include <memory>
#include <utility>

namespace {

/// What a program prints is bounded already; this keeps the number of bytes within an int.
constexpr std::size_t maxSize = std::size_t { 16 } << 20;

/// No network, no DTD, and entities stay unexpanded; libxml2's own limits on depth and on names are
/// left in force.
constexpr int options
    = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOCDATA;

constexpr struct {
    std::string_view element;
    PropertyList::Kind kind;
} kinds[] = {
    { "dict", PropertyList::Kind::dictionary },
    { "array", PropertyList::Kind::array },
    { "string", PropertyList::Kind::text },
    { "integer", PropertyList::Kind::number },
};

std::string_view view(const xmlChar* text)
{
    return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

PropertyList::Kind kindOf(std::string_view element)
{
    for (const auto& row : kinds)
        if (row.element == element)
            return row.kind;
    return PropertyList::Kind::other;
}

} // namespace

std::optional<PropertyList> PropertyList::parse(std::string_view xml)
{
    if (xml.size() > maxSize)
        return std::nullopt;
    const std::unique_ptr<xmlTextReader, decltype(&xmlFreeTextReader)> reader(
        xmlReaderForMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, options),
        &xmlFreeTextReader);
    if (!reader)
        return std::nullopt;

    PropertyList list;
    std::vector<std::size_t> open; // the values around the present place
    std::string key;
    bool isKey = false;
    bool isPropertyList = false;
    int state = 0;
    while ((state = xmlTextReaderRead(reader.get())) == 1) {
        switch (xmlTextReaderNodeType(reader.get())) {
        case XML_READER_TYPE_ELEMENT: {
            const auto element = view(xmlTextReaderConstLocalName(reader.get()));
            const bool isEmpty = xmlTextReaderIsEmptyElement(reader.get()) == 1;
            if (xmlTextReaderDepth(reader.get()) == 0) {
                isPropertyList = element == "plist";
            } else if (element == "key") {
                key.clear();
                isKey = !isEmpty;
            } else {
                if (open.empty() && !list.nodes_.empty())
                    return std::nullopt; // a second root
                const std::size_t node = list.nodes_.size();
                list.nodes_.push_back({ kindOf(element), std::exchange(key, {}), {}, {} });
                if (!open.empty())
                    list.nodes_[open.back()].children.push_back(node);
                if (!isEmpty)
                    open.push_back(node);
            }
            break;
        }
        case XML_READER_TYPE_TEXT:
        case XML_READER_TYPE_CDATA:
        case XML_READER_TYPE_SIGNIFICANT_WHITESPACE:
            if (isKey)
                key += view(xmlTextReaderConstValue(reader.get()));
            else if (!open.empty())
                list.nodes_[open.back()].text += view(xmlTextReaderConstValue(reader.get()));
            break;
        case XML_READER_TYPE_END_ELEMENT:
            if (isKey)
                isKey = false;
            else if (!open.empty())
                open.pop_back();
            break;
        default:
            break;
        }
    }
    return state == 0 && isPropertyList && !list.nodes_.empty() ? std::optional(std::move(list))
                                                                : std::nullopt;
}
