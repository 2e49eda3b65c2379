#include "VintrelCLI/Selection.h"

#include "VintrelCLI/Options.h"
#include "VintrelCore/Foundation/Text.h"
#include "VintrelCore/Foundation/Unicode/Unicode.h"
#include "VintrelCore/Model/Volume.h"

#include <algorithm>

namespace {

/// The category that a Danish or English word names, for example "billeder" or "image".
std::optional<FileCategory> categoryNamed(std::string_view word)
{
    for (const auto category : allFileCategories)
        if (word == identifier(category) || word == Text::lowerCase(label(category)))
            return category;
    return std::nullopt;
}

std::optional<Recoverability> chanceNamed(std::string_view word)
{
    for (const auto chance : { Recoverability::unknown, Recoverability::poor,
             Recoverability::partial, Recoverability::good })
        if (word == Text::lowerCase(label(chance)))
            return chance;
    return std::nullopt;
}

std::string notUnderstood(std::string_view option, std::string_view word, std::string_view expected)
{
    return std::string(option) + " forstår ikke »" + Unicode::escaped(word) + "«. "
        + std::string(expected);
}

} // namespace

Selection::Selection(std::span<const std::string> arguments, std::optional<std::string>& problem)
{
    const Options options(arguments);
    onlyDeleted_ = options.has("--deleted");
    for (const std::string_view option : { "--only", "--type", "--chance", "--volume" })
        if (options.lacksValue(option))
            problem = "Efter " + std::string(option)
                + " mangler, hvad der skal vælges. »man vintrel-cli« viser hvordan.";
    for (const auto& pattern : options.values("--only"))
        patterns_.emplace_back(pattern);
    for (const auto& word : options.words("--type")) {
        if (const auto category = categoryNamed(word))
            categories_.insert(*category);
        else
            extensions_.insert(word.starts_with('.') ? word.substr(1) : word);
    }
    for (const auto& word : options.words("--chance")) {
        if (const auto chance = chanceNamed(word))
            chances_.insert(*chance);
        else
            problem = notUnderstood("--chance", word, "Skriv god, delvis, ringe eller ukendt.");
    }
    for (const auto& word : options.words("--volume")) {
        if (const auto number = Text::number(word); number && *number > 0)
            volumes_.insert(*number);
        else
            problem = notUnderstood("--volume", word,
                "Skriv nummeret på et volumen: 1 for det første, som scan og tree viser.");
    }
}

bool Selection::takesVolume(std::uint64_t number) const
{
    return volumes_.empty() || volumes_.contains(number);
}

bool Selection::isNarrowed() const
{
    return !(patterns_.empty() && extensions_.empty() && categories_.empty() && chances_.empty()
        && volumes_.empty());
}

bool Selection::takes(const FileNode& node) const
{
    if (onlyDeleted_ && node.status == EntryStatus::existing)
        return false;
    if (!chances_.empty() && !chances_.contains(node.recoverability))
        return false;
    if ((!extensions_.empty() || !categories_.empty())
        && !extensions_.contains(node.fileExtension()) && !categories_.contains(node.category()))
        return false;
    if (patterns_.empty())
        return true;
    const auto path = node.path();
    return std::ranges::any_of(
        patterns_, [&](const Wildcard& pattern) { return pattern.matches(path); });
}

std::vector<FileNode*> Selection::nodes(const Volume& volume) const
{
    if (onlyDeleted_ || isNarrowed()) {
        auto files = volume.root->allFiles();
        std::erase_if(files, [this](const FileNode* node) { return !takes(*node); });
        return files;
    }
    std::vector<FileNode*> nodes;
    nodes.reserve(volume.root->children().size());
    for (const auto& child : volume.root->children())
        nodes.push_back(child.get());
    return nodes;
}
