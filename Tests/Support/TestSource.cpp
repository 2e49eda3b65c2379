#include "Tests/Support/TestSource.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

TemporaryFolder::TemporaryFolder()
{
    auto pattern = (std::filesystem::temp_directory_path() / "vintrel-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    path_ = pattern;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::unique_ptr<DiskSource> makeSource(
    std::span<const std::uint8_t> bytes, std::uint32_t sectorSize)
{
    static int number = 0;
    if (const char* folder = std::getenv("VINTREL_KEEP_IMAGES"))
        writeFile(folder + ("/" + std::to_string(++number)), bytes);
    auto name = (std::filesystem::temp_directory_path() / "vintrel-source-XXXXXX").string();
    FileDescriptor descriptor(::mkstemp(name.data()));
    ::unlink(name.c_str());
    if (!descriptor
        || ::pwrite(descriptor.get(), bytes.data(), bytes.size(), 0)
            != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("no temporary file");
    return std::make_unique<DiskSource>(DiskSource::Opened { .descriptor = std::move(descriptor),
        .path = name,
        .displayName = "test.img",
        .size = bytes.size(),
        .sectorSize = sectorSize,
        .isDevice = false,
        .bsdName = std::nullopt,
        .cleanup = nullptr });
}

Bytes patternBytes(std::size_t count, std::uint32_t seed)
{
    std::mt19937 random(seed);
    Bytes bytes(count);
    for (std::size_t at = 0; at < count; at += 4) {
        const auto word = random();
        for (std::size_t i = at; i < std::min(at + 4, count); ++i)
            bytes[i] = static_cast<std::uint8_t>(word >> 8 * (i - at));
    }
    return bytes;
}

Bytes bytesOf(std::string_view text) { return { text.begin(), text.end() }; }

Bytes joined(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const auto& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = file ? static_cast<std::streamoff>(file.tellg()) : 0;
    Bytes bytes(static_cast<std::size_t>(std::max<std::streamoff>(size, 0)));
    file.seekg(0);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
    return bytes;
}

void writeFile(const std::string& path, std::span<const std::uint8_t> bytes)
{
    std::ofstream file(path, std::ios::binary);
    file.write(
        reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::string writeScript(const std::string& path, const std::string& text)
{
    writeFile(path, bytesOf("#!/bin/sh\n" + text));
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

int runCommand(const std::string& command, std::string* output)
{
    FILE* const pipe = ::popen(("{ " + command + "; } 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return -1;
    char buffer[4096];
    while (const auto count = std::fread(buffer, 1, sizeof buffer, pipe))
        if (output != nullptr)
            output->append(buffer, count);
    const int status = ::pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool hasProgram(const std::string& name) { return runCommand("command -v " + name) == 0; }
