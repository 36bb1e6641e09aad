#include "device_status.h"

#include <nlohmann/json.hpp>

namespace {
using json = nlohmann::json;
constexpr char status_path[] = "/update/device.json";

// The member `key` of `object` when it is a string; a wrong type counts as
// no document at all, so that nothing half-read is ever claimed.
bool read_text(const json& object, const char* key, std::string& into) {
    const auto member = object.find(key);
    if (member == object.end() || !member->is_string()) return false;
    into = member->get<std::string>();
    return true;
}

bool read_installation(const json& record, device_status::installation& into) {
    return record.is_object() && read_text(record, "time", into.time) &&
           read_text(record, "version", into.version) && read_text(record, "sha256", into.sha256) &&
           read_text(record, "result", into.result) && read_text(record, "reason", into.reason);
}

std::optional<device_status> parse_status(const std::string& body) {
    const json document = json::parse(body, nullptr, false);
    if (!document.is_object()) return std::nullopt;
    device_status status;
    const auto fallback = document.find("fallback");
    const auto size = document.find("max_package_bytes");
    const auto last = document.find("last_install");
    if (!read_text(document, "version", status.version) ||
        !read_text(document, "slot", status.slot) || fallback == document.end() ||
        !fallback->is_boolean() || last == document.end()) {
        return std::nullopt;
    }
    status.fallback = fallback->get<bool>();
    if (size != document.end() && size->is_number_unsigned()) {
        status.max_package_bytes = size->get<unsigned long long>();
    }
    if (!last->is_null()) {
        status.last_install.emplace();
        if (!read_installation(*last, *status.last_install)) return std::nullopt;
    }
    return status;
}

bool same_record(const device_status::installation& a, const device_status::installation& b) {
    return a.time == b.time && a.sha256 == b.sha256 && a.result == b.result;
}

// The last installation the document after the update holds, when it is
// this update's: of this package, and not already there before (the same
// package sent again). A document before that could not be read cannot tell.
const device_status::installation* this_update(const status_reading& before,
                                               const status_reading& after,
                                               const std::string& sha256) {
    if (!after.status || !after.status->last_install) return nullptr;
    const device_status::installation& record = *after.status->last_install;
    if (record.sha256 != sha256) return nullptr;
    if (before.absent) return &record;
    if (!before.status) return nullptr;
    const auto& earlier = before.status->last_install;
    return earlier && same_record(*earlier, record) ? nullptr : &record;
}
}  // namespace

status_reading read_device_status(http_session& session) {
    const http_answer answer = session.get(status_path);
    status_reading reading;
    reading.absent = answer.reached() && answer.code == 404;
    if (answer.ok()) reading.status = parse_status(answer.body);
    return reading;
}

std::string running_text(const device_status& status) {
    return "the device runs " + status.version + " in slot " + status.slot +
           (status.fallback ? ", after a fallback" : "");
}

outcome judged(outcome result, const status_reading& before, const status_reading& after,
               const std::string& sha256) {
    if (before.status) result.version_before = before.status->version;
    if (!after.status) return result;
    const device_status& now = *after.status;
    result.version_after = now.version;
    result.slot = now.slot;
    result.fallback = now.fallback;
    const device_status::installation* record = this_update(before, after, sha256);
    if (record == nullptr) return result;
    result.install_result = record->result;
    result.install_reason = record->reason;
    if (record->result == "refused" && !result.ok()) {
        result.message +=
            "; the package was refused: " + record->reason + "; " + now.version + " still runs";
    } else if (record->result == "installed" && (now.fallback || now.version != record->version)) {
        result.status = EXIT_ROLLED_BACK;
        result.message = record->version +
                         " was installed but did not start; the device went back to " + now.version;
    }
    return result;
}
