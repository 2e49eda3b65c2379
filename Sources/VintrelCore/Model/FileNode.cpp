#include "VintrelCore/Model/FileNode.h"

#include "VintrelCore/Foundation/Sorting.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"

#include <algorithm>
#include <atomic>
#include <compare>
#include <iterator>

namespace {

/// Takes the digits off the front of `text`, leading zeros dropped.
std::string_view takeNumber(std::string_view& text)
{
    std::size_t length = 0;
    while (length < text.size() && Text::isDigit(text[length]))
        ++length;
    auto digits = text.substr(0, length);
    text.remove_prefix(length);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return digits;
}

/// The first code point as the order sees it. Nearly all of them are ASCII.
char32_t takeFolded(std::string_view& text)
{
    const char first = text.front();
    if (static_cast<unsigned char>(first) >= 0x80)
        return Unicode::foldedCase(Unicode::takeFirst(text));
    text.remove_prefix(1);
    return static_cast<unsigned char>(Text::lowerCase(first));
}

/// The length of what both names begin with, up to where the order sees a new unit in both: not
/// inside a number or a character.
std::size_t commonUnits(std::string_view left, std::string_view right)
{
    const auto differing = std::ranges::mismatch(left, right).in1;
    auto length = static_cast<std::size_t>(differing - left.begin());
    while (length > 0
        && (Text::isDigit(left[length - 1])
            || static_cast<unsigned char>(left[length - 1]) >= 0x80))
        --length;
    return length;
}

std::strong_ordering compareNatural(std::string_view left, std::string_view right)
{
    const auto common = commonUnits(left, right);
    left.remove_prefix(common);
    right.remove_prefix(common);
    while (!left.empty() && !right.empty()) {
        if (Text::isDigit(left.front()) && Text::isDigit(right.front())) {
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

constexpr std::uint64_t maxID = (std::uint64_t { 1 } << 46) - 1; // no memory holds so many

std::uint64_t nextNodeID()
{
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

} // namespace

const FileNode::Children FileNode::noChildren;

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

FileNode::FileNode(std::string name, bool isDirectory, std::uint64_t size, EntryStatus status,
    Recoverability recoverability, FileData data)
    : name(std::move(name))
    , size(size)
    , data(std::move(data))
    , status(status)
    , recoverability(recoverability)
    , id_(nextNodeID() & maxID)
    , isDirectory_(isDirectory ? 1 : 0)
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
    if (!children_)
        return;
    Children dying = std::move(*children_);
    while (!dying.empty()) {
        const auto node = std::move(dying.back());
        dying.pop_back();
        if (!node->children_)
            continue;
        std::ranges::move(*node->children_, std::back_inserter(dying));
        node->children_.reset();
    }
}

FileNode& FileNode::add(std::unique_ptr<FileNode> child)
{
    child->parent_ = this;
    if (isUnsorted_)
        sortNow();
    if (!children_)
        children_ = std::make_unique<Children>();
    return *children_->emplace_back(std::move(child));
}

void FileNode::removeAllChildren()
{
    children_.reset();
    isUnsorted_ = 0;
}

const Attachment* packedContentOf(const FileNode& node)
{
    if (!node.attachments)
        return nullptr;
    const auto found
        = std::ranges::find(*node.attachments, Attachment::Kind::packedContent, &Attachment::kind);
    return found == node.attachments->end() ? nullptr : &*found;
}

std::unique_ptr<FileNode> makeStreamFile(
    const FileNode& owner, const Attachment& stream, std::string name)
{
    auto file
        = FileNode::makeFile(std::move(name), stream.size, owner.status, stream.recoverability);
    file->created = owner.created;
    file->modified = owner.modified;
    return file;
}

void FileNode::attach(Attachment attachment)
{
    if (!attachments)
        attachments = std::make_unique<Attachments>();
    attachments->push_back(std::move(attachment));
}

void FileNode::addNote(std::string_view text)
{
    if (note)
        note->append("; ").append(text);
    else
        note = text;
}

void FileNode::sortChildren()
{
    isUnsorted_ = children_ != nullptr;
    forEachUnordered([](FileNode& node) { node.isUnsorted_ = node.children_ != nullptr; });
}

void FileNode::sortNow() const
{
    isUnsorted_ = 0;
    sortIfNeeded(*children_, comesBefore);
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
    for (const auto& child : children())
        if (!child->isDirectory())
            files.push_back(child.get());
    return files;
}

std::vector<FileNode*> FileNode::folders() const
{
    std::vector<FileNode*> folders;
    for (const auto& child : children())
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
    forEachUnordered([&](const FileNode& node) {
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
