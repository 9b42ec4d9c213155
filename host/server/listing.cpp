/*
 * Listings are read by programs: column widths, month names and the order of facts follow what
 * their parsers expect.
 */
#include "listing.h"

#include "log.h"
#include "path_rules.h"
#include "utf8.h"
#include "vpath.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace tirval::server {
namespace {

/* Half a year: the border between time of day and year in a listing. */
constexpr std::time_t recent_seconds = std::time_t{182} * 24 * 60 * 60;

constexpr std::array<const char *, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

struct fact_name_t {
    fact_set_t::fact_t fact;
    std::string_view name;
};

constexpr std::array fact_names = {
    fact_name_t{fact_set_t::type, "type"},
    fact_name_t{fact_set_t::size, "size"},
    fact_name_t{fact_set_t::modify, "modify"},
    fact_name_t{fact_set_t::perm, "perm"},
    fact_name_t{fact_set_t::unique, "unique"},
    fact_name_t{fact_set_t::unix_mode, "UNIX.mode"},
    fact_name_t{fact_set_t::unix_owner, "UNIX.owner"},
    fact_name_t{fact_set_t::unix_group, "UNIX.group"},
};

/* The values go into one byte each of a printf result: years beyond four digits are held there. */
std::tm utc(std::time_t time)
{
    std::tm fields{};
    if (gmtime_r(&time, &fields) == nullptr || fields.tm_year > 9999 - 1900 ||
        fields.tm_year < -1900) {
        const std::time_t epoch = 0;
        gmtime_r(&epoch, &fields);
    }
    return fields;
}

std::string mode_text(const item_t &item)
{
    std::string text = "-rwxrwxrwx";
    for (unsigned bit = 0; bit < 9; ++bit) {
        if ((item.mode & (0400U >> bit)) == 0) {
            text[bit + 1] = '-';
        }
    }
    if (!item.link_target.empty()) {
        text[0] = 'l';
    } else if (item.is_folder()) {
        text[0] = 'd';
    }
    return text;
}

std::string owner_text(unsigned id, const std::string &local)
{
    return id == 0 ? local : std::to_string(id);
}

std::string one_word(std::string_view name)
{
    std::string word(name);
    std::replace_if(
        word.begin(), word.end(),
        [](char byte) { return byte <= ' ' || byte == 0x7F || byte == ';'; }, '_');
    return word.empty() ? "user" : word;
}

/* FNV-1a, 64 bits. */
std::uint64_t path_hash(std::string_view path)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char byte : path) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
    }
    return hash;
}

const char *type_value(const item_t &item, entry_kind_t kind)
{
    switch (kind) {
    case entry_kind_t::current_folder:
        return "cdir";
    case entry_kind_t::parent_folder:
        return "pdir";
    case entry_kind_t::child:
        break;
    }
    return item.is_folder() ? "dir" : "file";
}

std::string hexadecimal(std::uint64_t value)
{
    std::array<char, 17> text{};
    std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(value));
    return text.data();
}

std::string octal_mode(mode_t mode)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode) & 07777U);
    return text.data();
}

} // namespace

bool item_t::is_folder() const
{
    return S_ISDIR(mode);
}

item_t item_from_record(const tirval_gridftp_server_control_stat_t &record)
{
    item_t item;
    item.mode = record.mode;
    item.links = std::max(1, record.nlink);
    item.uid = record.uid;
    item.gid = record.gid;
    item.size = std::max<std::int64_t>(0, record.size);
    item.modified = record.mtime;
    if (record.symlink_target != nullptr) {
        item.link_target = record.symlink_target;
    }
    return item;
}

owner_names_t make_owner_names(std::string_view user, std::string_view group)
{
    return {one_word(user), one_word(group)};
}

std::string ls_line(const item_t &item, std::string_view name, const owner_names_t &owners,
                    std::time_t now)
{
    const std::tm fields = utc(item.modified);
    const bool recent = item.modified <= now && item.modified > now - recent_seconds;
    std::array<char, 16> when{};
    if (recent) {
        std::snprintf(when.data(), when.size(), "%02d:%02d", fields.tm_hour, fields.tm_min);
    } else {
        std::snprintf(when.data(), when.size(), "%5d", fields.tm_year + 1900);
    }
    const std::string user = owner_text(item.uid, owners.user);
    const std::string group = owner_text(item.gid, owners.group);
    std::array<char, 256> columns{};
    std::snprintf(columns.data(), columns.size(), "%s %3d %-8.64s %-8.64s %12lld %s %2d %s ",
                  mode_text(item).c_str(), item.links, user.c_str(), group.c_str(),
                  static_cast<long long>(item.size),
                  months.at(static_cast<std::size_t>(fields.tm_mon)), fields.tm_mday, when.data());
    std::string line = columns.data();
    line += name;
    if (!item.link_target.empty()) {
        line += " -> " + item.link_target;
    }
    return line;
}

fact_set_t::fact_set_t() : bits_(0)
{
    for (const fact_name_t &known : fact_names) {
        bits_ |= known.fact;
    }
}

std::optional<fact_set_t> fact_set_t::parse(std::string_view list)
{
    unsigned bits = 0;
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(';'), list.size());
        const std::string_view name = list.substr(0, end);
        if (name.empty() || name.find(' ') != std::string_view::npos) {
            return std::nullopt;
        }
        for (const fact_name_t &known : fact_names) {
            bits |= equal_without_case(name, known.name) ? static_cast<unsigned>(known.fact) : 0U;
        }
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return fact_set_t(bits);
}

std::string fact_set_t::list() const
{
    std::string text;
    for (const fact_name_t &known : fact_names) {
        if (has(known.fact)) {
            text += known.name;
            text += ';';
        }
    }
    return text;
}

std::string fact_set_t::feature_list() const
{
    std::string text;
    for (const fact_name_t &known : fact_names) {
        text += known.name;
        text += has(known.fact) ? "*;" : ";";
    }
    return text;
}

std::string facts_text(const item_t &item, entry_kind_t kind, std::string_view path,
                       const fact_set_t &facts, const owner_names_t &owners)
{
    std::string text;
    const auto add = [&](fact_set_t::fact_t fact, std::string_view name, const std::string &value) {
        if (facts.has(fact)) {
            text.append(name).append("=").append(value).append(";");
        }
    };
    const bool folder = item.is_folder();
    add(fact_set_t::type, "type", type_value(item, kind));
    if (!folder) {
        add(fact_set_t::size, "size", std::to_string(item.size));
    }
    if (item.modified != 0) {
        add(fact_set_t::modify, "modify", time_value(item.modified));
    }
    add(fact_set_t::perm, "perm", std::string(permissions_of(path, folder)));
    add(fact_set_t::unique, "unique", hexadecimal(path_hash(path)));
    if (kind != entry_kind_t::parent_folder) {
        add(fact_set_t::unix_mode, "UNIX.mode", octal_mode(item.mode));
        add(fact_set_t::unix_owner, "UNIX.owner", owner_text(item.uid, owners.user));
        add(fact_set_t::unix_group, "UNIX.group", owner_text(item.gid, owners.group));
    }
    return text;
}

std::string time_value(std::time_t time)
{
    const std::tm fields = utc(time);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d%02d%02d%02d%02d%02d", fields.tm_year + 1900,
                  fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    return text.data();
}

bool name_filter_t::shows(std::string_view name)
{
    if (!is_plain_name(name)) {
        log_warning("left out of the listing of \"%s\": the name \"%s\" cannot be used in a path",
                    clean_text(folder_).c_str(), clean_text(name).c_str());
        return false;
    }
    if (!seen_.emplace(name).second) {
        log_warning("shown once in the listing of \"%s\": several items have the name \"%s\"",
                    clean_text(folder_).c_str(), clean_text(name).c_str());
        return false;
    }
    return true;
}

} // namespace tirval::server
