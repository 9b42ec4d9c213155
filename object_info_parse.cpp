/*
 * Fills an item record from one JSON object of a Graph answer: a driveItem, a drive of a site, a
 * followed site, or the remoteItem of a shared item (Microsoft Graph v1.0 resources).
 */
#include "tirval_onedrive_common.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#define TIRVAL_L_ONEDRIVE_PARSE_ERROR(message)                                                     \
    tirval_i_onedrive_answer_error("object_info_parse", "tirval_onedrive_object_info_parse",       \
                                   __LINE__, (message))

static void tirval_l_onedrive_set_text(char **field, const char *value)
{
    std::free(*field);
    *field = strdup(value);
}

/* Sets a text from a string member; leaves it when there is none. */
static void tirval_l_onedrive_read_text(json_t *json, const char *key, char **field)
{
    const char *value = nullptr;
    if (json_unpack(json, "{s:s}", key, &value) == 0) {
        tirval_l_onedrive_set_text(field, value);
    }
}

static void tirval_l_onedrive_lower_hex(char *text)
{
    for (; text != nullptr && *text != '\0'; ++text) {
        if (*text >= 'A' && *text <= 'Z') {
            *text = static_cast<char>(*text - 'A' + 'a');
        }
    }
}

static void tirval_l_onedrive_read_hashes(json_t *file, tirval_onedrive_path_info_t *info)
{
    const char *sha1 = nullptr;
    const char *sha256 = nullptr;
    const char *qxr = nullptr;
    if (json_unpack(file, "{s:{s?s,s?s,s?s}}", "hashes", "sha1Hash", &sha1, "sha256Hash", &sha256,
                    "quickXorHash", &qxr) != 0) {
        return; /* all or none */
    }
    if (sha1 != nullptr) {
        tirval_l_onedrive_set_text(&info->sha1, sha1);
        tirval_l_onedrive_lower_hex(info->sha1);
    }
    if (sha256 != nullptr) {
        tirval_l_onedrive_set_text(&info->sha256, sha256);
        tirval_l_onedrive_lower_hex(info->sha256);
    }
    if (qxr != nullptr) {
        tirval_l_onedrive_set_text(&info->qxr, qxr); /* Base64: case matters */
    }
}

/* A followed site is complete with its id and its name. */
static tirval_result_t tirval_l_onedrive_read_site(json_t *json, json_t *sharepoint_ids,
                                                   tirval_onedrive_path_info_t *info)
{
    const char *site_id = nullptr;
    info->type = TIRVAL_ONEDRIVE_FOLDER;
    if (json_unpack(sharepoint_ids, "{s:s}", "siteId", &site_id) != 0) {
        return TIRVAL_L_ONEDRIVE_PARSE_ERROR("No 'siteId' field found!");
    }
    tirval_l_onedrive_set_text(&info->id, site_id);
    tirval_l_onedrive_set_text(&info->parent_id, "Shared libraries");
    const char *name = json_string_value(json_object_get(json, "name"));
    if (name == nullptr) {
        name = json_string_value(json_object_get(json, "displayName"));
    }
    if (name == nullptr) {
        return TIRVAL_L_ONEDRIVE_PARSE_ERROR("No 'name' field found!");
    }
    tirval_l_onedrive_set_text(&info->name, name);
    return TIRVAL_SUCCESS;
}

/* Sets the modification time; false when it cannot be read, what was read of it is then taken. */
static bool tirval_l_onedrive_read_modtime(json_t *json, tirval_onedrive_path_info_t *info)
{
    json_t *value =
        json_object_get(json_object_get(json, "fileSystemInfo"), "lastModifiedDateTime");
    if (value == nullptr) {
        value = json_object_get(json, "lastModifiedDateTime");
    }
    const char *text = json_string_value(value);
    if (text == nullptr) {
        return true;
    }
    struct tm when = {};
    // NOLINTNEXTLINE(cert-err34-c): how many numbers were read is checked
    const int read = std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d", &when.tm_year, &when.tm_mon,
                                 &when.tm_mday, &when.tm_hour, &when.tm_min, &when.tm_sec);
    when.tm_year -= 1900;
    when.tm_mon -= 1;
    info->modtime = timegm(&when);
    return read == 6;
}

/* Sets the parent's id; false when the reference was unpacked without a value. */
static bool tirval_l_onedrive_read_parent(json_t *json, tirval_onedrive_path_info_t *info)
{
    json_t *parent = json_object_get(json, "parentReference");
    const char *id = "0";
    if (parent != nullptr && json_unpack(parent, "{s:s}", "driveId", &id) != 0 &&
        json_unpack(parent, "{s:s}", "id", &id) != 0) {
        return true;
    }
    if (id == nullptr) {
        return false;
    }
    tirval_l_onedrive_set_text(&info->parent_id, id);
    return true;
}

static tirval_result_t tirval_l_onedrive_read_item(json_t *json, tirval_onedrive_path_info_t *info)
{
    json_int_t size = 0;
    tirval_l_onedrive_read_text(json, "name", &info->name);
    tirval_l_onedrive_read_text(json, "id", &info->id);
    if (json_unpack(json, "{s:I}", "size", &size) == 0) {
        info->size = static_cast<uint64_t>(size);
    }
    const bool modtime_read = tirval_l_onedrive_read_modtime(json, info);
    if (!tirval_l_onedrive_read_parent(json, info)) {
        return TIRVAL_L_ONEDRIVE_PARSE_ERROR("No 'parentReference->id' field found!");
    }
    return modtime_read
               ? TIRVAL_SUCCESS
               : TIRVAL_L_ONEDRIVE_PARSE_ERROR("Error parsing 'lastModifiedDateTime' field!");
}

/* The member that is there first decides what the object is. */
static tirval_result_t tirval_l_onedrive_read_object(json_t *json,
                                                     tirval_onedrive_path_info_t *info)
{
    if (json_object_get(json, "folder") != nullptr) {
        info->type = TIRVAL_ONEDRIVE_FOLDER;
    } else if (json_t *file = json_object_get(json, "file"); file != nullptr) {
        info->type = TIRVAL_ONEDRIVE_FILE;
        info->has_metadata = true;
        tirval_l_onedrive_read_hashes(file, info);
    } else if (json_t *ids = json_object_get(json, "sharepointIds"); ids != nullptr) {
        return tirval_l_onedrive_read_site(json, ids, info);
    } else {
        const bool is_drive = json_object_get(json, "driveType") != nullptr;
        info->type = is_drive ? TIRVAL_ONEDRIVE_FOLDER : TIRVAL_ONEDRIVE_UNKNOWN;
    }
    return tirval_l_onedrive_read_item(json, info);
}

tirval_result_t tirval_onedrive_object_info_parse(json_t *json, tirval_onedrive_path_info_t *info)
{
    TIRVAL_ONEDRIVE_LOG_ENTER();
    return TIRVAL_ONEDRIVE_LOG_RESULT(tirval_l_onedrive_read_object(json, info));
}
