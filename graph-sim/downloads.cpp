// Serving the bytes of files at pre-authenticated addresses.
#include "errors.h"
#include "graph_api.h"
#include "ranges.h"

#include <algorithm>

namespace graph_sim {

namespace {

// The transfer hosts answer failures without a body.
response bare(unsigned status)
{
    response reply;
    reply.status = status;
    return reply;
}

item *find_file(world &all, const download_links::checked &address, const drive *&home)
{
    drive *found = all.find_drive(address.drive_id);
    item *file = found == nullptr ? nullptr : found->find(address.item_id);
    home = found;
    return file == nullptr || file->folder ? nullptr : file;
}

void describe(response &reply, const drive &home, const item &file)
{
    reply.headers.add("Content-Type", file.mime_type);
    reply.headers.add("Content-Disposition",
                      "attachment; filename*=UTF-8''" + percent_encode(file.name));
    reply.headers.add("Accept-Ranges", "bytes");
    reply.headers.add("ETag", file.etag(home.kind()));
    reply.headers.add("Last-Modified", http_date(file.times.modified));
}

// A rule may let more or fewer bytes go out than were asked for.
void change_length(response &reply, const fault_action *fault)
{
    if (fault == nullptr || fault->length_change == 0) {
        return;
    }
    const std::uint64_t available = reply.data->size() - reply.offset;
    const auto wanted = static_cast<std::int64_t>(reply.length) + fault->length_change;
    reply.length =
        std::min(available, static_cast<std::uint64_t>(std::max<std::int64_t>(wanted, 0)));
}

} // namespace

response answer_download(world &all, const download_links &links, const settings &options,
                         const request &got, const fault_action *fault)
{
    if (got.method != "GET") {
        return bare(405);
    }
    if (options.download_refuses_bearer && got.headers.find("Authorization") != nullptr) {
        return bare(401);
    }
    const auto address = links.check(got.target, wall_clock());
    if (address.state != download_links::verdict::valid) {
        return bare(401);
    }
    const drive *home = nullptr;
    const item *file = find_file(all, address, home);
    if (file == nullptr) {
        return bare(404);
    }
    const std::string *header = got.headers.find("Range");
    const bool ignored = header == nullptr || (fault != nullptr && fault->ignore_range);
    const std::uint64_t size = file->size;
    const byte_range range =
        ignored ? byte_range{byte_range::kind::whole, 0, size} : parse_range(*header, size);
    if (range.what == byte_range::kind::malformed) {
        return bare(400);
    }
    response reply = bare(200);
    if (range.what == byte_range::kind::unsatisfiable) {
        reply.status = 416;
        reply.headers.add("Content-Range", "bytes */" + std::to_string(size));
        return reply;
    }
    describe(reply, *home, *file);
    reply.data = file->data;
    reply.offset = range.offset;
    reply.length = range.length;
    if (range.what == byte_range::kind::part) {
        reply.status = 206;
        reply.headers.add("Content-Range", "bytes " + std::to_string(range.offset) + "-" +
                                               std::to_string(range.offset + range.length - 1) +
                                               "/" + std::to_string(size));
    }
    change_length(reply, fault);
    return reply;
}

} // namespace graph_sim
