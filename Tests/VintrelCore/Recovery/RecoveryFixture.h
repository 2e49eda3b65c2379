#pragma once

#include "Tests/Support/TestSource.h"
#include "VintrelCore/Recovery/Recovery.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

/// A tree to recover, a disk under it and a place to put it.
class Recovery : public ::testing::Test {
protected:
    FileNode& addFile(FileNode& folder, const std::string& name, FileData data = bytesOf("x"),
        std::uint64_t size = 1, EntryStatus status = EntryStatus::existing)
    {
        return folder.add(
            FileNode::makeFile(name, size, status, Recoverability::good, std::move(data)));
    }
    FileNode& addFolder(
        FileNode& folder, const std::string& name, EntryStatus status = EntryStatus::existing)
    {
        return folder.add(FileNode::makeFolder(name, status));
    }

    RecoveryResult recover(
        const RecoveryEngine::Reporter& reporter = nullptr, const std::string& name = "r")
    {
        return recover({}, reporter, name);
    }
    RecoveryResult recover(const RecoveryOptions& options,
        const RecoveryEngine::Reporter& reporter = nullptr, const std::string& name = "r")
    {
        std::vector<FileNode*> nodes;
        for (const auto& child : root->children())
            nodes.push_back(child.get());
        return RecoveryEngine::recover(
            nodes, name, *source, target.path(), options, reporter, progress);
    }

    /// Paths of the files below a folder, sorted, without the report.
    static std::vector<std::string> filesIn(const std::string& folder)
    {
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
            if (!entry.is_directory() && entry.path().filename() != "Gendannelsesrapport.csv")
                files.push_back(std::filesystem::relative(entry.path(), folder).string());
        std::ranges::sort(files);
        return files;
    }
    static std::string text(const std::string& path)
    {
        const auto bytes = readFile(path);
        return { bytes.begin(), bytes.end() };
    }

    TemporaryFolder target;
    std::unique_ptr<FileNode> root = FileNode::makeFolder("", EntryStatus::existing);
    Bytes disk = patternBytes(6_MiB);
    std::unique_ptr<DiskSource> source = makeSource(disk);
    WorkProgress progress;
};
