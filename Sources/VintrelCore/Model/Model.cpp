#include "VintrelCore/Model/Model.h"

#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <CVintrel/Platform.h>

#include <algorithm>
#include <compare>
#include <limits>

namespace {

struct CategoryText {
    std::string_view identifier, label, symbol;
};

constexpr CategoryText categoryTexts[] = {
    { "image", "Billeder", "photo" },
    { "video", "Video", "film" },
    { "audio", "Lyd", "waveform" },
    { "document", "Dokumenter", "doc.text" },
    { "archive", "Arkiver", "archivebox" },
    { "other", "Andet", "doc" },
};
static_assert(std::size(categoryTexts) == allFileCategories.size());

constexpr const CategoryText& texts(FileCategory category)
{
    return categoryTexts[static_cast<std::size_t>(category)];
}

struct ExtensionRow {
    std::string_view extension;
    FileCategory category;
};

/// Sorted by extension. Every format that is carved, and its usual neighbours; "sqlite" and "msg"
/// are carved as documents but belong to no category of the user's.
constexpr ExtensionRow extensionTable[] = {
    { "3fr", FileCategory::image },
    { "3g2", FileCategory::video },
    { "3gp", FileCategory::video },
    { "7z", FileCategory::archive },
    { "aac", FileCategory::audio },
    { "aif", FileCategory::audio },
    { "aifc", FileCategory::audio },
    { "aiff", FileCategory::audio },
    { "amr", FileCategory::audio },
    { "arw", FileCategory::image },
    { "avi", FileCategory::video },
    { "avif", FileCategory::image },
    { "bmp", FileCategory::image },
    { "bz2", FileCategory::archive },
    { "cr2", FileCategory::image },
    { "cr3", FileCategory::image },
    { "crw", FileCategory::image },
    { "csv", FileCategory::document },
    { "dng", FileCategory::image },
    { "doc", FileCategory::document },
    { "docm", FileCategory::document },
    { "docx", FileCategory::document },
    { "epub", FileCategory::document },
    { "flac", FileCategory::audio },
    { "flv", FileCategory::video },
    { "gif", FileCategory::image },
    { "gz", FileCategory::archive },
    { "heic", FileCategory::image },
    { "heif", FileCategory::image },
    { "htm", FileCategory::document },
    { "html", FileCategory::document },
    { "jar", FileCategory::archive },
    { "jpe", FileCategory::image },
    { "jpeg", FileCategory::image },
    { "jpg", FileCategory::image },
    { "key", FileCategory::document },
    { "m2ts", FileCategory::video },
    { "m4a", FileCategory::audio },
    { "m4v", FileCategory::video },
    { "md", FileCategory::document },
    { "mid", FileCategory::audio },
    { "midi", FileCategory::audio },
    { "mkv", FileCategory::video },
    { "mov", FileCategory::video },
    { "mp3", FileCategory::audio },
    { "mp4", FileCategory::video },
    { "mpeg", FileCategory::video },
    { "mpg", FileCategory::video },
    { "mts", FileCategory::video },
    { "nef", FileCategory::image },
    { "nrw", FileCategory::image },
    { "numbers", FileCategory::document },
    { "odp", FileCategory::document },
    { "ods", FileCategory::document },
    { "odt", FileCategory::document },
    { "oga", FileCategory::audio },
    { "ogg", FileCategory::audio },
    { "ogv", FileCategory::video },
    { "opus", FileCategory::audio },
    { "orf", FileCategory::image },
    { "pages", FileCategory::document },
    { "pdf", FileCategory::document },
    { "pef", FileCategory::image },
    { "png", FileCategory::image },
    { "ppt", FileCategory::document },
    { "pptm", FileCategory::document },
    { "pptx", FileCategory::document },
    { "psd", FileCategory::image },
    { "raf", FileCategory::image },
    { "rar", FileCategory::archive },
    { "rtf", FileCategory::document },
    { "rw2", FileCategory::image },
    { "srw", FileCategory::image },
    { "svg", FileCategory::image },
    { "tar", FileCategory::archive },
    { "tgz", FileCategory::archive },
    { "tif", FileCategory::image },
    { "tiff", FileCategory::image },
    { "ts", FileCategory::video },
    { "txt", FileCategory::document },
    { "wav", FileCategory::audio },
    { "webm", FileCategory::video },
    { "webp", FileCategory::image },
    { "wma", FileCategory::audio },
    { "wmv", FileCategory::video },
    { "xls", FileCategory::document },
    { "xlsm", FileCategory::document },
    { "xlsx", FileCategory::document },
    { "xml", FileCategory::document },
    { "xz", FileCategory::archive },
    { "zip", FileCategory::archive },
};
static_assert(std::ranges::is_sorted(extensionTable, {}, &ExtensionRow::extension));

bool isDigit(char character) { return character >= '0' && character <= '9'; }

/// Takes the digits off the front of `text`, leading zeros dropped.
std::string_view takeNumber(std::string_view& text)
{
    std::size_t length = 0;
    while (length < text.size() && isDigit(text[length]))
        ++length;
    auto digits = text.substr(0, length);
    text.remove_prefix(length);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits;
}

/// The first code point as the order sees it. Nearly all of them are ASCII.
char32_t takeFolded(std::string_view& text)
{
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte >= 0x80)
        return Unicode::foldedCase(Unicode::takeFirst(text));
    text.remove_prefix(1);
    return byte >= 'A' && byte <= 'Z' ? byte + char32_t { 0x20 } : byte;
}

std::strong_ordering compareNatural(std::string_view left, std::string_view right)
{
    while (!left.empty() && !right.empty()) {
        if (isDigit(left.front()) && isDigit(right.front())) {
            const auto leftNumber = takeNumber(left);
            const auto rightNumber = takeNumber(right);
            // Without leading zeros the longer number is the greater one, whatever its value.
            if (const auto order = leftNumber.size() <=> rightNumber.size(); std::is_neq(order))
                return order;
            if (const auto order = leftNumber <=> rightNumber; std::is_neq(order))
                return order;
            continue;
        }
        const auto order = takeFolded(left) <=> takeFolded(right);
        if (std::is_neq(order))
            return order;
    }
    return left.size() <=> right.size();
}

bool comesBefore(const std::unique_ptr<FileNode>& left, const std::unique_ptr<FileNode>& right)
{
    if (left->isDirectory() != right->isDirectory())
        return left->isDirectory();
    if (const auto order = compareNatural(left->name, right->name); std::is_neq(order))
        return std::is_lt(order);
    if (left->status != right->status)
        return left->status < right->status;
    if (left->name != right->name)
        return left->name < right->name;
    return left->id() < right->id();
}

std::int64_t nextNodeID()
{
    static std::atomic<std::int64_t> last = 0;
    return ++last;
}

std::int64_t nextVolumeID()
{
    static std::atomic<std::int64_t> last = 0;
    return ++last;
}

} // namespace

std::string_view displayName(FileSystemType type)
{
    constexpr std::array<std::string_view, allFileSystemTypes.size()> names { "FAT12", "FAT16",
        "FAT32", "exFAT", "NTFS", "HFS+", "APFS", "ext2/3/4", "Signaturer", "Ukendt" };
    return names[static_cast<std::size_t>(type)];
}

std::string_view label(EntryStatus status)
{
    constexpr std::string_view labels[]
        = { "Eksisterende", "Slettet", "Forældreløs", "Signaturfund" };
    return labels[static_cast<std::size_t>(status)];
}

std::string_view label(Recoverability recoverability)
{
    constexpr std::string_view labels[] = { "Ukendt", "Ringe", "Delvis", "God" };
    return labels[static_cast<std::size_t>(recoverability)];
}

std::string_view identifier(FileCategory category) { return texts(category).identifier; }

std::string_view label(FileCategory category) { return texts(category).label; }

std::string_view symbol(FileCategory category) { return texts(category).symbol; }

FileCategory categoryOf(std::string_view fileName)
{
    const auto extension = fileExtension(fileName);
    const auto* const row
        = std::ranges::lower_bound(extensionTable, extension, {}, &ExtensionRow::extension);
    return row != std::end(extensionTable) && row->extension == extension ? row->category
                                                                          : FileCategory::other;
}

std::string fileExtension(std::string_view fileName)
{
    const auto dot = fileName.rfind('.');
    if (dot == std::string_view::npos)
        return {};
    std::string extension(fileName.substr(dot + 1));
    for (auto& character : extension)
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character + ('a' - 'A'));
    return extension;
}

FileNode::FileNode(std::string name, bool isDirectory, std::uint64_t size, EntryStatus status,
    Recoverability recoverability, FileData data)
    : name(std::move(name))
    , size(size)
    , status(status)
    , recoverability(recoverability)
    , data(std::move(data))
    , id_(nextNodeID())
    , isDirectory_(isDirectory)
{
}

std::unique_ptr<FileNode> FileNode::makeFile(std::string name, std::uint64_t size,
    EntryStatus status, Recoverability recoverability, FileData data)
{
    return std::unique_ptr<FileNode>(
        new FileNode(std::move(name), false, size, status, recoverability, std::move(data)));
}

std::unique_ptr<FileNode> FileNode::makeFolder(std::string name, EntryStatus status)
{
    return std::unique_ptr<FileNode>(
        new FileNode(std::move(name), true, 0, status, Recoverability::unknown, {}));
}

FileNode::~FileNode()
{
    // Left to themselves the destructors would recurse as deep as the disk says; here each node
    // dies without children.
    Children dying = std::move(children_);
    while (!dying.empty()) {
        const auto node = std::move(dying.back());
        dying.pop_back();
        std::ranges::move(node->children_, std::back_inserter(dying));
        node->children_.clear();
    }
}

FileNode& FileNode::add(std::unique_ptr<FileNode> child)
{
    child->parent_ = this;
    return *children_.emplace_back(std::move(child));
}

void FileNode::addNote(std::string_view text)
{
    if (note)
        note->append("; ").append(text);
    else
        note = text;
}

void FileNode::judgeByReuse(bool isFirstReused, bool isAnyReused)
{
    if (isFirstReused) {
        recoverability = Recoverability::poor;
        addNote("Blokkene er genbrugt af andre filer");
    } else if (isAnyReused) {
        recoverability = Recoverability::partial;
        addNote("Dele af filen kan være overskrevet");
    } else {
        recoverability = Recoverability::good;
    }
}

void FileNode::sortChildren()
{
    std::ranges::sort(children_, comesBefore);
    forEachDescendant(
        [](FileNode& node, std::size_t) { std::ranges::sort(node.children_, comesBefore); });
}

std::string FileNode::path() const
{
    std::vector<const FileNode*> chain;
    for (const auto* node = this; node->parent_ != nullptr; node = node->parent_)
        chain.push_back(node);
    if (chain.empty())
        return "/";
    std::string path;
    for (auto node = chain.rbegin(); node != chain.rend(); ++node)
        path.append("/").append((*node)->name);
    return path;
}

std::vector<FileNode*> FileNode::files() const
{
    std::vector<FileNode*> files;
    for (const auto& child : children_)
        if (!child->isDirectory())
            files.push_back(child.get());
    return files;
}

std::vector<FileNode*> FileNode::folders() const
{
    std::vector<FileNode*> folders;
    for (const auto& child : children_)
        if (child->isDirectory())
            folders.push_back(child.get());
    return folders;
}

std::vector<FileNode*> FileNode::allFiles() const
{
    std::vector<FileNode*> files;
    forEachDescendant([&](FileNode& node, std::size_t) {
        if (!node.isDirectory())
            files.push_back(&node);
    });
    return files;
}

Totals FileNode::totals() const
{
    Totals totals;
    forEachDescendant([&](const FileNode& node, std::size_t) {
        if (node.isDirectory()) {
            ++totals.folders;
            return;
        }
        ++totals.files;
        totals.bytes += node.size;
        if (node.status != EntryStatus::existing)
            ++totals.deleted;
    });
    return totals;
}

Volume::Volume(FileSystemType type, std::string label, std::uint64_t offset, std::uint64_t size,
    std::unique_ptr<FileNode> root, std::string origin)
    : type(type)
    , label(std::move(label))
    , offset(offset)
    , size(size)
    , root(std::move(root))
    , origin(std::move(origin))
    , id_(nextVolumeID())
{
}

std::string Volume::title() const
{
    std::string title = label.empty() ? "Uden navn" : label;
    return title.append(" (").append(displayName(type)).append(")");
}

void WorkProgress::report(double fraction, const std::string& message) const
{
    if (!handler_)
        return;
    const std::lock_guard guard(lock_);
    handler_(std::min(fraction, 1.0), message);
}

std::string formatBytes(std::uint64_t count)
{
    return formatBytes(count, CVintrel::decimalSeparator());
}

std::string formatBytes(std::uint64_t count, std::string_view decimalSeparator)
{
    struct Unit {
        std::string_view name;
        std::uint64_t size;  ///< in bytes
        std::uint64_t steps; ///< steps that the shown number is rounded to, in one unit
    };
    constexpr Unit units[] = {
        { "KB", 1'000, 1 },
        { "MB", 1'000'000, 10 },
        { "GB", 1'000'000'000, 100 },
        { "TB", 1'000'000'000'000, 100 },
        { "PB", 1'000'000'000'000'000, 100 },
        { "EB", 1'000'000'000'000'000'000, 100 },
    };

    count = std::min<std::uint64_t>(count, std::numeric_limits<std::int64_t>::max());
    if (count < units[0].size)
        return count == 1 ? "1 byte" : std::to_string(count) + " bytes";
    for (const auto& unit : units) {
        const std::uint64_t step = unit.size / unit.steps;
        const std::uint64_t rounded = count / step + (count % step >= step - step / 2 ? 1 : 0);
        if (rounded >= 1000 * unit.steps && &unit != std::end(units) - 1)
            continue; // 999.96 MB is 1 GB
        std::string text = std::to_string(rounded / unit.steps);
        if (const std::uint64_t rest = rounded % unit.steps; rest != 0) {
            std::string decimals
                = std::to_string(unit.steps + rest).substr(1); // leading zeros kept
            decimals.erase(decimals.find_last_not_of('0') + 1);
            text.append(decimalSeparator).append(decimals);
        }
        return text.append(" ").append(unit.name);
    }
    return {}; // not reached: the last unit takes every count
}
