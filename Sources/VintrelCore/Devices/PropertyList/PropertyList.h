#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One of Apple's property lists, in XML. What is absent, or of another kind than asked for, reads
/// as empty.
class PropertyList {
public:
    enum class Kind { dictionary, array, text, number, other };

    /// A value of the list; it must not outlive it.
    class Value {
    public:
        /// The value of a key in a dictionary.
        Value operator[](std::string_view key) const;
        /// The members of an array.
        std::vector<Value> items() const;
        std::string text() const;
        std::uint64_t number() const;

    private:
        friend class PropertyList;
        Value(const PropertyList* list, std::optional<std::size_t> node)
            : list_(list)
            , node_(node)
        {
        }
        bool is(Kind kind) const { return node_ && list_->nodes_[*node_].kind == kind; }

        const PropertyList* list_;
        std::optional<std::size_t> node_;
    };

    /// None when it is no property list, or not a whole one. Nothing that it refers to outside
    /// itself is read.
    static std::optional<PropertyList> parse(std::string_view xml);

    Value root() const { return { this, nodes_.empty() ? std::optional<std::size_t>() : 0 }; }

private:
    /// The list lies flat, whatever its depth.
    struct Node {
        Kind kind = Kind::other;
        std::string key; ///< in the dictionary around it
        std::string text;
        std::vector<std::size_t> children;
    };

    std::vector<Node> nodes_; ///< the root first
};
