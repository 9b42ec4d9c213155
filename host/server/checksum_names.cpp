/*
 * The HASH command takes the names of the IANA registry of hash functions, which storages spell in
 * their own ways.
 */
#include "checksum_names.h"

#include "utf8.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tirval::server {
namespace {

/* In the order of preference.  The first is what HASH uses unless told otherwise. */
constexpr std::array<std::pair<std::string_view, std::string_view>, 4> registered_names = {
    {{"SHA256", "SHA-256"}, {"SHA512", "SHA-512"}, {"SHA1", "SHA-1"}, {"MD5", "MD5"}}};

std::size_t rank_of(const checksum_name_t &name)
{
    const auto *found =
        std::find_if(registered_names.begin(), registered_names.end(),
                     [&](const auto &row) { return equal_without_case(row.first, name.storage); });
    return static_cast<std::size_t>(found - registered_names.begin());
}

template <typename member_t>
std::optional<checksum_name_t> find_name(std::string_view announced, std::string_view name,
                                         member_t member)
{
    for (checksum_name_t &candidate : parse_checksums(announced)) {
        if (equal_without_case(candidate.*member, name)) {
            return std::move(candidate);
        }
    }
    return std::nullopt;
}

} // namespace

std::vector<checksum_name_t> parse_checksums(std::string_view announced)
{
    std::vector<checksum_name_t> names;
    while (!announced.empty()) {
        const std::string_view entry = announced.substr(0, announced.find(';'));
        announced.remove_prefix(std::min(entry.size() + 1, announced.size()));
        checksum_name_t name;
        name.storage = name.hash = entry.substr(0, entry.find(':'));
        const std::size_t rank = rank_of(name);
        if (rank < registered_names.size()) {
            name.hash = registered_names[rank].second;
        }
        if (!name.storage.empty()) {
            names.push_back(std::move(name));
        }
    }
    std::stable_sort(names.begin(), names.end(),
                     [](const auto &a, const auto &b) { return rank_of(a) < rank_of(b); });
    return names;
}

std::optional<checksum_name_t> find_checksum(std::string_view announced, std::string_view name)
{
    return find_name(announced, name, &checksum_name_t::storage);
}

std::optional<checksum_name_t> find_hash(std::string_view announced, std::string_view name)
{
    return find_name(announced, name, &checksum_name_t::hash);
}

std::optional<checksum_name_t> chosen_hash(std::string_view announced, std::string_view name)
{
    if (auto found = find_hash(announced, name)) {
        return found;
    }
    auto names = parse_checksums(announced);
    return names.empty() ? std::nullopt : std::optional(std::move(names.front()));
}

std::string hash_feature_list(std::string_view announced, std::string_view chosen)
{
    const auto marked = chosen_hash(announced, chosen);
    std::string list;
    for (const checksum_name_t &name : parse_checksums(announced)) {
        list += name.hash;
        list += marked && name.hash == marked->hash ? "*;" : ";";
    }
    return list;
}

} // namespace tirval::server
