// Identifiers and tags that look like the service's, made from names so that two runs agree.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace graph_sim {

// How a drive makes its identifiers and answers.
enum class flavour {
    business,     // a work account's own drive
    library,      // a document library of a site
    personal,     // a consumer account in the older store
    personal_new, // a consumer account moved to the newer store
};

// The driveType that the service reports.
std::string_view drive_type(flavour kind);
inline bool is_personal(flavour kind)
{
    return kind == flavour::personal || kind == flavour::personal_new;
}

// A GUID in the order in which its text form is read.
struct guid {
    std::array<unsigned char, 16> bytes{};

    static guid from_name(std::string_view name); // a version 4 look-alike from a digest
    static guid random();
    // The text form, with or without upper case; anything else throws std::invalid_argument.
    static guid parse(std::string_view text);

    [[nodiscard]] std::string lower() const;
    [[nodiscard]] std::string upper() const;
    // The mixed byte order in which the service stores GUIDs inside identifiers.
    [[nodiscard]] std::string little_endian() const;
};

// The root folder of every SharePoint-type drive has this one.
guid root_guid();

// "b!" and base64url of the GUIDs of site collection, web and list.
std::string business_drive_id(const guid &site, const guid &web, const guid &list);
// 16 hexadecimal digits.
std::string personal_drive_id(std::string_view name, flavour kind);

// "01" and base32 of a prefix that is constant in a drive and the item's GUID.
std::string business_item_id(std::string_view drive_id, const guid &item);
// "CID!number" in the older store, "CID!s" and the GUID's digits in the newer one.
std::string personal_item_id(std::string_view drive_id, flavour kind, std::uint64_t number,
                             const guid &item);

// The eTag and cTag of an item at a change count.
std::string entity_tag(flavour kind, std::string_view item_id, const guid &item,
                       std::uint64_t count);
std::string content_tag(flavour kind, std::string_view item_id, const guid &item,
                        std::uint64_t count, bool folder);

} // namespace graph_sim
