#pragma once

#include "VintrelCore/Foundation/SystemResult.h"

#include <string>
#include <string_view>

class RangeMap;

/// How far the rescue of a source has come, as something to look at.
namespace DamagePicture {

/// A part of a page: a strip, the figures and a table of the ranges. Of very many ranges the table
/// tells the first ones, and how many more there are.
std::string section(const RangeMap& map);

/// Puts a page with nothing else to `path`, over what is there. `title`: of the image.
[[nodiscard]] SystemError writePage(
    const std::string& path, std::string_view title, const RangeMap& map);

/// Where the page of an image lies: beside it.
inline std::string pathFor(const std::string& imagePath) { return imagePath + ".html"; }

} // namespace DamagePicture
