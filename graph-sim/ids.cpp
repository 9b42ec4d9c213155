// Making identifiers and tags.
#include "ids.h"

#include "hashes.h"
#include "text.h"

#include <algorithm>
#include <stdexcept>

namespace graph_sim {

namespace {

std::string upper_text(std::string text)
{
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return text;
}

} // namespace

std::string_view drive_type(flavour kind)
{
    switch (kind) {
    case flavour::business:
        return "business";
    case flavour::library:
        return "documentLibrary";
    case flavour::personal:
    case flavour::personal_new:
        break;
    }
    return "personal";
}

guid guid::from_name(std::string_view name)
{
    guid made;
    const std::string bytes = sha256(name);
    std::copy_n(bytes.begin(), made.bytes.size(), made.bytes.begin());
    made.bytes[6] = static_cast<unsigned char>((made.bytes[6] & 0x0F) | 0x40);
    made.bytes[8] = static_cast<unsigned char>((made.bytes[8] & 0x3F) | 0x80);
    return made;
}

guid guid::random()
{
    return from_name(random_bytes(32));
}

guid guid::parse(std::string_view text)
{
    std::string escaped;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash != (text[i] == '-')) {
            throw std::invalid_argument("not a GUID");
        }
        if (!dash) {
            escaped += (escaped.size() % 3 == 0 ? "%" : "") + std::string(1, text[i]);
        }
    }
    const auto bytes = percent_decode(escaped);
    guid made;
    if (!bytes || text.size() != 36 || bytes->size() != made.bytes.size()) {
        throw std::invalid_argument("not a GUID");
    }
    std::ranges::copy(*bytes, made.bytes.begin());
    return made;
}

std::string guid::lower() const
{
    std::string text = hex(bytes);
    for (const size_t at : {8U, 13U, 18U, 23U}) {
        text.insert(at, "-");
    }
    return text;
}

std::string guid::upper() const
{
    return upper_text(lower());
}

std::string guid::little_endian() const
{
    std::string mixed(bytes.begin(), bytes.end());
    std::reverse(mixed.begin(), mixed.begin() + 4);
    std::reverse(mixed.begin() + 4, mixed.begin() + 6);
    std::reverse(mixed.begin() + 6, mixed.begin() + 8);
    return mixed;
}

guid root_guid()
{
    return guid::parse("EA8CC6BE-FFDB-43D7-976F-BC7DA445C639");
}

std::string business_drive_id(const guid &site, const guid &web, const guid &list)
{
    return "b!" +
           base64url(bytes_of(site.little_endian() + web.little_endian() + list.little_endian()));
}

std::string personal_drive_id(std::string_view name, flavour kind)
{
    const std::string digits = hex(bytes_of(sha256(name))).substr(0, 16);
    return kind == flavour::personal_new ? upper_text(digits) : digits;
}

std::string business_item_id(std::string_view drive_id, const guid &item)
{
    return "01" + base32(bytes_of(sha256(drive_id).substr(0, 4) + item.little_endian()));
}

std::string personal_item_id(std::string_view drive_id, flavour kind, std::uint64_t number,
                             const guid &item)
{
    const std::string start = upper_text(std::string(drive_id)) + "!";
    return kind == flavour::personal ? start + std::to_string(number)
                                     : start + "s" + hex(item.bytes);
}

std::string entity_tag(flavour kind, std::string_view item_id, const guid &item,
                       std::uint64_t count)
{
    if (kind == flavour::personal) {
        std::string coded = base64(bytes_of(std::string(item_id) + "." + std::to_string(count)));
        coded.erase(std::min(coded.find('='), coded.size()));
        return "a" + coded;
    }
    return "\"{" + item.upper() + "}," + std::to_string(count) + "\"";
}

std::string content_tag(flavour kind, std::string_view item_id, const guid &item,
                        std::uint64_t count, bool folder)
{
    if (kind == flavour::personal) {
        std::string coded = base64(
            bytes_of((folder ? "t:" : "c:") + std::string(item_id) + "." + std::to_string(count)));
        coded.erase(std::min(coded.find('='), coded.size()));
        return "a" + coded;
    }
    return "\"c:{" + item.upper() + "}," + std::to_string(folder ? 0 : count) + "\"";
}

} // namespace graph_sim
