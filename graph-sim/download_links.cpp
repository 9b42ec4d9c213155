// Signing and checking download addresses.
#include "download_links.h"

#include <charconv>

namespace graph_sim {

download_links::download_links()
{
    revoke_all();
}

void download_links::revoke_all()
{
    key_ = random_bytes(32);
}

std::string download_links::signed_target(const std::string &payload,
                                          const std::string &unique) const
{
    std::string target(download_prefix);
    target += payload + "?UniqueId=" + unique + "&Translate=false&tempauth=v1.";
    target += base64url(bytes_of(hmac_sha256(key_, payload)));
    return target + "&ApiVersion=2.0";
}

std::string download_links::make(std::string_view origin, const drive &home, const item &file,
                                 timestamp expiry) const
{
    const std::string unique = file.unique.lower();
    const std::string fields = home.id() + "\n" + file.id + "\n" + unique + "\n" +
                               std::to_string(expiry.time_since_epoch().count());
    return std::string(origin) + signed_target(base64url(bytes_of(fields)), unique);
}

download_links::checked download_links::check(std::string_view target, timestamp now) const
{
    checked found;
    const std::string_view path = target.substr(0, target.find('?'));
    const std::string payload(path.substr(std::min(download_prefix.size(), path.size())));
    const std::string decoded = base64url_decode(payload).value_or("");
    const std::vector<std::string> fields = split(decoded, '\n');
    if (fields.size() != 4 || signed_target(payload, fields[2]) != target) {
        return found;
    }
    std::int64_t expiry = 0;
    std::from_chars(fields[3].data(), fields[3].data() + fields[3].size(), expiry);
    found.state = now.time_since_epoch().count() < expiry ? verdict::valid : verdict::expired;
    found.drive_id = fields[0];
    found.item_id = fields[1];
    return found;
}

} // namespace graph_sim
