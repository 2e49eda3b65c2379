// Stands in for the reader of property lists where no program of the system writes them.

#include "VintrelCore/Devices/PropertyList/PropertyList.h"

std::optional<PropertyList> PropertyList::parse(std::string_view /*xml*/) { return std::nullopt; }
