#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace VtxQel
{

/**
 * Topic patterns of an AMQP topic exchange with a value for each: words separated by '.', where '*' stands for exactly
 * one word and '#' for any number of words, also none. The empty key has no words. Threads: the caller locks.
 *
 * A look-up follows all patterns at once, word by word, so that its cost is bounded by the words times the patterns
 * that still match, whatever the number of '#'.
 *
 * @tparam Value what is stored with a pattern; copied, compared.
 */
template <typename Value>
class TopicTrie
{
  public:
    /** Whether the pattern stands for more than itself. */
    static bool HasWildcard(std::string_view pattern);

    /** Adds the value to the pattern; a pattern may have several. */
    void Add(std::string_view pattern, const Value& value);
    /** Removes one such value from the pattern. */
    void Remove(std::string_view pattern, const Value& value);
    bool IsEmpty() const { return m_root.IsEmpty(); }

    /** Calls `visit(value)` for every value of every pattern that the key matches, once for each pattern. */
    template <typename Visitor>
    void Match(std::string_view key, const Visitor& visit) const;

  private:
    struct Node
    {
        std::map<std::string, std::unique_ptr<Node>, std::less<>> children;
        std::vector<Value> values;
        /** Reached by '#': further words may follow without leaving it. */
        bool takesMore = false;

        bool IsEmpty() const { return children.empty() && values.empty(); }
        const Node* Child(std::string_view word) const
        {
            const auto position = children.find(word);
            return position == children.end() ? nullptr : position->second.get();
        }
    };
    using Nodes = std::vector<const Node*>;

    static std::vector<std::string_view> Split(std::string_view key);
    static void RemoveBelow(
        Node& node, const std::vector<std::string_view>& words, std::size_t depth, const Value& value);
    static void AddIfAny(Nodes& nodes, const Node* node);
    static Nodes Step(const Nodes& reached, std::string_view word);
    static void EnterTakingNone(Nodes& nodes);

    Node m_root;
};

template <typename Value>
bool TopicTrie<Value>::HasWildcard(std::string_view pattern)
{
    for (const std::string_view word : Split(pattern))
    {
        if (word == "*" || word == "#")
        {
            return true;
        }
    }
    return false;
}

template <typename Value>
std::vector<std::string_view> TopicTrie<Value>::Split(std::string_view key)
{
    std::vector<std::string_view> words;
    if (key.empty())
    {
        return words;
    }
    while (true)
    {
        const std::size_t dot = key.find('.');
        words.push_back(key.substr(0, dot));
        if (dot == std::string_view::npos)
        {
            return words;
        }
        key.remove_prefix(dot + 1);
    }
}

template <typename Value>
void TopicTrie<Value>::Add(std::string_view pattern, const Value& value)
{
    Node* node = &m_root;
    for (const std::string_view word : Split(pattern))
    {
        auto position = node->children.find(word);
        if (position == node->children.end())
        {
            position = node->children.emplace(std::string(word), std::make_unique<Node>()).first;
            position->second->takesMore = word == "#";
        }
        node = position->second.get();
    }
    node->values.push_back(value);
}

template <typename Value>
template <typename Visitor>
void TopicTrie<Value>::Match(std::string_view key, const Visitor& visit) const
{
    Nodes reached{&m_root};
    EnterTakingNone(reached);
    for (const std::string_view word : Split(key))
    {
        reached = Step(reached, word);
    }
    for (const Node* node : reached)
    {
        for (const Value& value : node->values)
        {
            visit(value);
        }
    }
}

template <typename Value>
void TopicTrie<Value>::AddIfAny(Nodes& nodes, const Node* node)
{
    if (node != nullptr)
    {
        nodes.push_back(node);
    }
}

template <typename Value>
typename TopicTrie<Value>::Nodes TopicTrie<Value>::Step(const Nodes& reached, std::string_view word)
{
    Nodes next;
    for (const Node* node : reached)
    {
        // A key's word that looks like a wildcard is a word like any other and met by the wildcards below.
        if (word != "*" && word != "#")
        {
            AddIfAny(next, node->Child(word));
        }
        AddIfAny(next, node->Child("*"));
        AddIfAny(next, node->takesMore ? node : nullptr);
    }
    EnterTakingNone(next);
    return next;
}

/** Adds what a '#' that stands for no word at all leads to, and keeps each node once. */
template <typename Value>
void TopicTrie<Value>::EnterTakingNone(Nodes& nodes)
{
    for (std::size_t index = 0; index < nodes.size(); ++index)
    {
        AddIfAny(nodes, nodes[index]->Child("#"));
    }
    std::sort(nodes.begin(), nodes.end());
    nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
}

template <typename Value>
void TopicTrie<Value>::Remove(std::string_view pattern, const Value& value)
{
    RemoveBelow(m_root, Split(pattern), 0, value);
}

template <typename Value>
void TopicTrie<Value>::RemoveBelow(
    Node& node, const std::vector<std::string_view>& words, std::size_t depth, const Value& value)
{
    if (depth == words.size())
    {
        const auto position = std::find(node.values.begin(), node.values.end(), value);
        if (position != node.values.end())
        {
            node.values.erase(position);
        }
        return;
    }
    const auto child = node.children.find(words[depth]);
    if (child == node.children.end())
    {
        return;
    }
    RemoveBelow(*child->second, words, depth + 1, value);
    if (child->second->IsEmpty())
    {
        node.children.erase(child);
    }
}

} // namespace VtxQel
