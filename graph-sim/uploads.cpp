// Simple uploads.
#include "uploads.h"

#include "errors.h"
#include "names.h"

namespace graph_sim {

response gateway_page(unsigned status)
{
    response reply;
    reply.status = status;
    reply.headers.add("Content-Type", "text/html; charset=us-ascii");
    reply.body = html_page(status);
    return reply;
}

void check_if_match(const write_context &context, const drive &home, const item *there)
{
    if (there != nullptr) {
        require_match(context, home, *there);
    } else if (context.got.headers.find("If-Match") != nullptr) {
        throw api_error(412, "resourceModified", "ETag does not match current item's value");
    }
}

void check_new_name(const write_target &target)
{
    std::size_t between = 0;
    for (std::size_t i = 0; i + 1 < target.missing.size(); ++i) {
        between += utf16_length(target.missing[i]) + 1;
    }
    check_name(*target.home, *target.last, target.missing.back(), false, between);
}

std::optional<response> refuse_upload_head(const request &got, const settings &options)
{
    const std::optional<std::uint64_t> length = got.announced_length();
    if (!length && !got.is_chunked()) {
        return gateway_page(411);
    }
    if (length.value_or(0) > options.largest_upload) {
        return gateway_page(413);
    }
    return std::nullopt;
}

response store_file(const write_context &context, drive &home, item &parent, const new_file &file)
{
    const timestamp now = context.resources.now;
    item *there = drive::child(parent, file.name);
    if (there != nullptr && (there->folder || file.wanted == conflict::fail)) {
        name_taken();
    }
    const bool replaced = there != nullptr && file.wanted != conflict::rename;
    if (replaced) {
        home.replace_content(*there, file.data, now);
    } else {
        const std::string name = there == nullptr ? file.name : free_name(parent, file.name, false);
        there = home.add_file(parent, name, file.data, item_times::all(now));
        home.child_changed(parent, now);
    }
    there->times = with_client_times(there->times, file.client_times, home.kind());
    return item_answer(context, replaced ? 200 : 201, home, *there);
}

response put_content(const write_context &context, const route &asked)
{
    const conflict wanted = conflict_of(context.got);
    write_target target = find_target(context, asked);
    drive &home = *target.home;
    const item *there = target.there();
    check_if_match(context, home, there);
    if (there != nullptr && (there->folder || wanted == conflict::fail)) {
        name_taken();
    }
    require_space(home, context.got.data->size());
    if (there == nullptr) {
        check_new_name(target);
    }
    item &parent = there != nullptr ? *there->parent : make_parents(context, target);
    const std::string name = there != nullptr ? there->name : target.missing.back();
    return store_file(context, home, parent, {name, context.got.data, wanted, json()});
}

} // namespace graph_sim
