#pragma once

#include "VintrelCore/Disk/DiskSource.h"
#include "VintrelCore/Foundation/Binary.h"

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>

/// A folder of the test's own, removed with everything in it at the end.
class TemporaryFolder {
public:
    TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder();

    std::string path() const { return path_.string(); }
    std::string operator/(std::string_view name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

/// A source that holds these bytes, in a file that has no name any more. With VINTREL_KEEP_IMAGES
/// that folder gets a copy, for the corpora of the fuzz targets.
std::unique_ptr<DiskSource> makeSource(
    std::span<const std::uint8_t> bytes, std::uint32_t sectorSize = 512);

/// Bytes that tell where they come from: reproducible, without repetition that a wrong offset could
/// hide behind.
Bytes patternBytes(std::size_t count, std::uint32_t seed = 1);

Bytes bytesOf(std::string_view text);
Bytes joined(std::initializer_list<Bytes> parts);
Bytes readFile(const std::string& path);
void writeFile(const std::string& path, std::span<const std::uint8_t> bytes);

/// Writes a program of this text, for the shell, and returns its path.
std::string writeScript(const std::string& path, const std::string& text);

/// Runs a shell command and returns its exit status; its output goes to `output` when that is
/// given, and nowhere else.
int runCommand(const std::string& command, std::string* output = nullptr);

/// Whether a program is installed.
bool hasProgram(const std::string& name);

constexpr std::size_t operator""_KiB(unsigned long long count)
{
    return static_cast<std::size_t>(count) << 10;
}
constexpr std::size_t operator""_MiB(unsigned long long count)
{
    return static_cast<std::size_t>(count) << 20;
}
