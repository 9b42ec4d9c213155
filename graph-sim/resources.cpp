// Writing resources.
#include "resources.h"

namespace graph_sim {

namespace {

// Puts members that are wanted; what makes a value runs only then.
class member_writer {
  public:
    explicit member_writer(const field_set &fields) : fields_(fields), made_(json::object()) {}

    template <class Make> member_writer &put(const char *name, const Make &make)
    {
        if (fields_.wants(name)) {
            made_.set(name, make());
        }
        return *this;
    }
    json &object() { return made_; }

  private:
    const field_set &fields_;
    json made_;
};

json identity_set(const identity &who, flavour kind)
{
    json user = json::object();
    if (!who.email.empty() && kind != flavour::personal) {
        user.set("email", who.email);
    }
    user.set("id", who.id).set("displayName", who.display_name);
    json made = json::object();
    made.set("user", user);
    return made;
}

json created_by(const drive &home)
{
    json application = json::object();
    application.set("id", guid::from_name("application").lower())
        .set("displayName", "Graph simulator");
    json made = identity_set(home.facts().owner, home.kind());
    made.set("application", application);
    return made;
}

// The consumer store prints fractions of a second, the others whole seconds.
std::string time_text(timestamp time, flavour kind)
{
    return iso_time(time, kind == flavour::personal);
}

std::string web_url(const drive &home, const item &shown)
{
    if (home.kind() == flavour::personal) {
        return std::string("https://1drv.ms/") + (shown.folder ? "f" : "t") + "/s!" +
               base64url(shown.unique.bytes);
    }
    if (home.kind() == flavour::personal_new) {
        return "https://onedrive.live.com?cid=" + to_lower(home.id()) +
               "&id=" + percent_encode(shown.id);
    }
    return home.facts().web_url + percent_encode(drive::path_of(shown), true);
}

json parent_reference(const drive &home, const item &shown)
{
    json made = json::object();
    made.set("driveType", drive_type(home.kind())).set("driveId", home.id());
    if (shown.parent == nullptr) {
        return made;
    }
    const bool below_root = shown.parent->parent == nullptr;
    const std::string root_name = home.kind() == flavour::personal  ? "root"
                                  : home.kind() == flavour::library ? home.facts().name
                                                                    : "Documents";
    const std::string start =
        home.kind() == flavour::personal ? "/drive/root:" : "/drives/" + home.id() + "/root:";
    made.set("id", shown.parent->id)
        .set("name", below_root ? root_name : shown.parent->name)
        .set("path", start + percent_encode(drive::path_of(*shown.parent), true));
    if (!home.facts().site_id.empty()) {
        made.set("siteId", home.facts().site_id);
    }
    return made;
}

json hashes_member(const item &shown, flavour kind, const settings &options)
{
    if (shown.hashes.kind == hash_choice::how::none) {
        return {};
    }
    if (shown.hashes.kind == hash_choice::how::given) {
        return shown.hashes.given;
    }
    const hash_set known = shown.data->hashes(options.hash_limit, is_personal(kind));
    json made = json::object();
    if (known.quick_xor) {
        made.set("quickXorHash", *known.quick_xor);
    }
    if (is_personal(kind) && known.sha1 && known.sha256) {
        made.set("sha1Hash", *known.sha1).set("sha256Hash", *known.sha256);
    }
    return json_object_size(made.get()) == 0 ? json() : made;
}

json file_member(const item &shown, flavour kind, const settings &options)
{
    json made = json::object();
    made.set("mimeType", shown.mime_type).set("hashes", hashes_member(shown, kind, options));
    return made;
}

json folder_member(const item &shown, flavour kind)
{
    json made = json::object();
    made.set("childCount", json::integer(std::uint64_t{shown.children.size()}));
    if (is_personal(kind)) {
        json view = json::object();
        view.set("viewType", "thumbnails").set("sortBy", "name").set("sortOrder", "ascending");
        made.set("view", view);
    }
    return made;
}

json client_times(const item &shown, flavour kind)
{
    json made = json::object();
    made.set("createdDateTime", time_text(shown.times.client_created, kind))
        .set("lastModifiedDateTime", time_text(shown.times.client_modified, kind));
    return made;
}

json quota_member(const drive &shown)
{
    const std::uint64_t total = shown.facts().quota_total;
    const std::uint64_t used = shown.bytes_used();
    json made = json::object();
    made.set("deleted", json::integer(shown.bytes_deleted()))
        .set("remaining", json::integer(total > used ? total - used : std::uint64_t{0}))
        .set("state", used < total ? "normal" : "exceeded")
        .set("total", json::integer(total))
        .set("used", json::integer(used));
    return made;
}

// What a shared entry says about the item in its owner's drive.
json remote_member(const share &entry, const item &shown, const resource_context &context)
{
    const drive &home = *entry.home;
    const flavour kind = home.kind();
    json parent = json::object();
    parent.set("driveId", home.id()).set("driveType", drive_type(kind));
    if (shown.parent != nullptr) {
        parent.set("id", shown.parent->id);
    }
    json shared = json::object();
    shared.set("scope", "users")
        .set("owner", identity_set(home.facts().owner, kind))
        .set("sharedDateTime", time_text(entry.since, kind));

    json made = json::object();
    made.set("id", shown.id)
        .set("name", shown.name)
        .set("size", json::integer(shown.size))
        .set("webUrl", web_url(home, shown))
        .set("createdDateTime", time_text(shown.times.created, kind))
        .set("lastModifiedDateTime", time_text(shown.times.modified, kind))
        .set("createdBy", identity_set(home.facts().owner, kind))
        .set("fileSystemInfo", client_times(shown, kind))
        .set("parentReference", parent)
        .set("shared", shared);
    if (shown.folder) {
        made.set("folder", folder_member(shown, kind));
    } else {
        json file = file_member(shown, kind, context.options);
        if (!is_personal(kind)) {
            // Work accounts tell no hash for what others share.
            json_object_del(file.get(), "hashes");
        }
        made.set("file", file);
    }
    overlay(made, entry.remote_extra);
    return made;
}

} // namespace

field_set::field_set(const std::optional<std::string> &select) : all_(!select)
{
    if (select) {
        for (const std::string &name : split(*select, ',')) {
            names_.insert(to_lower(name));
        }
        names_.insert("id");
    }
}

bool field_set::wants(std::string_view member) const
{
    return all_ || names_.contains(to_lower(member));
}

void field_set::trim(const json &object) const
{
    const char *key = nullptr;
    json_t *value = nullptr;
    void *next = nullptr;
    json_object_foreach_safe(object.get(), next, key, value)
    {
        if (!wants(key)) {
            json_object_del(object.get(), key);
        }
    }
}

json account_resource(const account &who)
{
    json made = json::object();
    made.set("businessPhones", json::array())
        .set("displayName", who.display_name)
        .set("givenName", json::null())
        .set("jobTitle", json::null())
        .set("mail", who.email)
        .set("mobilePhone", json::null())
        .set("officeLocation", json::null())
        .set("preferredLanguage", json::null())
        .set("surname", json::null())
        .set("userPrincipalName", who.email)
        .set("id", who.user_id);
    return made;
}

json drive_resource(const drive &shown, const field_set &fields)
{
    const drive_facts &facts = shown.facts();
    const std::string created = time_text(facts.created, facts.kind);
    member_writer writer(fields);
    writer.put("createdDateTime", [&] { return json::text(created); })
        .put("description", [] { return json::text(""); })
        .put("id", [&] { return json::text(facts.id); })
        .put("lastModifiedDateTime",
             [&] { return json::text(time_text(shown.root().times.modified, facts.kind)); })
        .put("name", [&] { return json::text(facts.name); })
        .put("webUrl", [&] { return json::text(facts.web_url); })
        .put("driveType", [&] { return json::text(drive_type(facts.kind)); })
        .put("createdBy", [&] { return identity_set(facts.owner, facts.kind); })
        .put("lastModifiedBy", [&] { return identity_set(facts.owner, facts.kind); })
        .put("owner", [&] { return identity_set(facts.owner, facts.kind); })
        .put("quota", [&] { return quota_member(shown); });
    return writer.object();
}

json item_resource(const drive &home, const item &shown, const field_set &fields,
                   const resource_context &context)
{
    const flavour kind = home.kind();
    const bool tagged = shown.parent != nullptr || kind == flavour::personal;
    member_writer writer(fields);
    if (!shown.folder && fields.all()) {
        writer.object().set("@microsoft.graph.downloadUrl",
                            context.links.make(context.download_origin, home, shown,
                                               context.now + context.options.download_lifetime));
    }
    writer.put("createdDateTime", [&] { return json::text(time_text(shown.times.created, kind)); });
    if (tagged) {
        writer.put("eTag", [&] { return json::text(shown.etag(kind)); });
    }
    writer.put("id", [&] { return json::text(shown.id); })
        .put("lastModifiedDateTime",
             [&] { return json::text(time_text(shown.times.modified, kind)); })
        .put("name", [&] { return json::text(shown.name); })
        .put("webUrl", [&] { return json::text(web_url(home, shown)); });
    if (tagged) {
        writer.put("cTag", [&] { return json::text(shown.ctag(kind)); });
    }
    writer.put("size", [&] { return json::integer(shown.size); })
        .put("createdBy", [&] { return created_by(home); })
        .put("lastModifiedBy", [&] { return identity_set(home.facts().owner, kind); })
        .put("parentReference", [&] { return parent_reference(home, shown); })
        .put("fileSystemInfo", [&] { return client_times(shown, kind); });
    if (shown.folder) {
        writer.put("folder", [&] { return folder_member(shown, kind); });
    } else {
        writer.put("file", [&] { return file_member(shown, kind, context.options); });
    }
    if (!shown.description.empty()) {
        writer.put("description", [&] { return json::text(shown.description); });
    }
    if (shown.parent == nullptr) {
        writer.put("root", [] { return json::object(); });
    }
    if (shown.extra) {
        overlay(writer.object(), shown.extra);
        fields.trim(writer.object());
    }
    return writer.object();
}

json shared_resource(const share &entry, const item &shown, const field_set &fields,
                     const resource_context &context)
{
    const flavour kind = entry.home->kind();
    member_writer writer(fields);
    writer.object().set("@odata.type", "#microsoft.graph.driveItem");
    writer.put("createdDateTime", [&] { return json::text(time_text(entry.since, kind)); })
        .put("id", [&] { return json::text(shown.id); })
        .put("lastModifiedDateTime", [&] { return json::text(time_text(entry.since, kind)); })
        .put("name", [&] { return json::text(shown.name); })
        .put("size", [&] { return json::integer(shown.size); })
        .put("webUrl", [&] { return json::text(web_url(*entry.home, shown)); })
        .put("remoteItem", [&] { return remote_member(entry, shown, context); });
    if (entry.outer_extra) {
        overlay(writer.object(), entry.outer_extra);
        fields.trim(writer.object());
    }
    return writer.object();
}

json site_resource(const site &shown, const field_set &fields)
{
    const std::string created = iso_time(shown.created);
    member_writer writer(fields);
    writer.put("createdDateTime", [&] { return json::text(created); })
        .put("description", [] { return json::text(""); })
        .put("displayName", [&] { return json::text(shown.display_name); })
        .put("name", [&] { return json::text(shown.name); })
        .put("id", [&] { return json::text(shown.id()); })
        .put("lastModifiedDateTime", [&] { return json::text(created); })
        .put("webUrl", [&] { return json::text(shown.web_url()); })
        .put("root", [] { return json::object(); })
        .put("siteCollection",
             [&] {
                 json made = json::object();
                 made.set("hostname", shown.hostname);
                 return made;
             })
        .put("sharepointIds", [&] {
            json made = json::object();
            made.set("siteId", shown.collection.lower())
                .set("siteUrl", shown.web_url())
                .set("tenantId", shown.tenant)
                .set("webId", shown.web.lower());
            return made;
        });
    if (shown.extra) {
        overlay(writer.object(), shown.extra);
        fields.trim(writer.object());
    }
    return writer.object();
}

} // namespace graph_sim
