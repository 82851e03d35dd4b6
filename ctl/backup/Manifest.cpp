#include "ctl/backup/Manifest.h"

#include "ctl/report/JsonText.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace torva::ctl {

namespace {

// The one that keeps the order of its keys looks for each key from the beginning: with many
// records, that takes a time that grows with the square of their number.
using Json = nlohmann::json;

constexpr int jsonIndent = 1;

std::string hexadecimal(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(byte) & 0xffU);
        text += digits;
    }
    return text;
}

std::string bytesOfHexadecimal(const std::string& text) {
    std::string bytes;
    for (std::string::size_type at = 0; at + 1 < text.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

Json jsonOf(const std::map<std::string, std::string>& texts) {
    Json object = Json::object();
    for (const auto& [name, text] : texts) {
        object[textOfBytes(name)] = textOfBytes(text);
    }
    return object;
}

std::map<std::string, std::string> textsOf(const Json& object) {
    std::map<std::string, std::string> texts;
    for (const auto& [name, text] : object.items()) {
        texts[bytesOfText(name)] = bytesOfText(text.get<std::string>());
    }
    return texts;
}

Json jsonOf(const std::vector<std::string>& texts) {
    Json list = Json::array();
    for (const std::string& text : texts) {
        list.push_back(textOfBytes(text));
    }
    return list;
}

std::vector<std::string> listOf(const Json& list) {
    std::vector<std::string> texts;
    for (const Json& text : list) {
        texts.push_back(bytesOfText(text.get<std::string>()));
    }
    return texts;
}

std::string octal(mode_t mode) {
    char text[16];
    std::snprintf(text, sizeof(text), "%o", mode);
    return text;
}

Json jsonOf(const Entry& entry) {
    Json object{{"mode", octal(entry.mode)}};
    if (!entry.isThere()) {
        return object;
    }
    object["owner"] = entry.owner;
    object["group"] = entry.group;
    object["seconds"] = entry.seconds;
    object["nanoseconds"] = entry.nanoseconds;
    if (entry.isFile()) {
        object["size"] = entry.size;
        object["sha256"] = entry.checksum;
    } else if (entry.isLink()) {
        object["target"] = textOfBytes(entry.target);
    } else if (entry.device != 0) {
        object["device"] = entry.device;
    }
    for (const auto& [name, value] : entry.attributes) {
        object["attributes"][textOfBytes(name)] = hexadecimal(value);
    }
    return object;
}

Entry entryOf(const Json& object) {
    Entry entry;
    entry.mode = static_cast<mode_t>(std::stoul(object.at("mode").get<std::string>(), nullptr, 8));
    if (!entry.isThere()) {
        return entry;
    }
    object.at("owner").get_to(entry.owner);
    object.at("group").get_to(entry.group);
    object.at("seconds").get_to(entry.seconds);
    object.at("nanoseconds").get_to(entry.nanoseconds);
    entry.size = object.value("size", entry.size);
    entry.checksum = object.value("sha256", "");
    entry.target = bytesOfText(object.value("target", ""));
    entry.device = object.value("device", entry.device);
    if (object.contains("attributes")) {
        for (const auto& [name, value] : object.at("attributes").items()) {
            entry.attributes[bytesOfText(name)] = bytesOfHexadecimal(value.get<std::string>());
        }
    }
    return entry;
}

Json jsonOf(const Snapshot& snapshot) {
    Json object = Json::object();
    for (const auto& [path, entry] : snapshot) {
        object[textOfBytes(path)] = jsonOf(entry);
    }
    return object;
}

Snapshot snapshotOf(const Json& object) {
    Snapshot snapshot;
    for (const auto& [path, entry] : object.items()) {
        snapshot[bytesOfText(path)] = entryOf(entry);
    }
    return snapshot;
}

} // namespace

std::string textOf(const Manifest& manifest) {
    const Json document{{"reason", textOfBytes(manifest.reason)},
                        {"configuration", textOfBytes(manifest.configuration)},
                        {"queue", textOfBytes(manifest.queue)},
                        {"configured", manifest.configured},
                        {"running", manifest.running},
                        {"paths", jsonOf(manifest.paths)},
                        {"present", jsonOf(manifest.present)},
                        {"entries", jsonOf(manifest.entries)}};
    return document.dump(jsonIndent) + "\n";
}

Manifest parseManifest(const std::string& text) {
    const Json document = Json::parse(text);
    Manifest manifest;
    manifest.reason = bytesOfText(document.at("reason").get<std::string>());
    manifest.configuration = bytesOfText(document.at("configuration").get<std::string>());
    manifest.queue = bytesOfText(document.at("queue").get<std::string>());
    manifest.configured = document.at("configured").get<bool>();
    manifest.running = document.at("running").get<bool>();
    manifest.paths = listOf(document.at("paths"));
    manifest.present = listOf(document.at("present"));
    manifest.entries = snapshotOf(document.at("entries"));
    return manifest;
}

std::string textOf(const LeftState& state) {
    Json records = Json::object();
    for (const auto& [table, ofTable] : state.records) {
        records[table] = jsonOf(ofTable);
    }
    const Json document{{"settings", jsonOf(state.settings)},
                        {"services", jsonOf(state.services)},
                        {"records", records},
                        {"entries", jsonOf(state.entries)}};
    return document.dump(jsonIndent) + "\n";
}

LeftState parseLeftState(const std::string& text) {
    const Json document = Json::parse(text);
    LeftState state;
    state.settings = textsOf(document.at("settings"));
    state.services = textsOf(document.at("services"));
    for (const auto& [table, records] : document.at("records").items()) {
        state.records[table] = textsOf(records);
    }
    state.entries = snapshotOf(document.at("entries"));
    return state;
}

} // namespace torva::ctl
