// SsoJson: parsing, printing and writing JSON texts and files, and reading a member as text.

#include "support/SsoJson.h"

#include "platform/Files.h"
#include "platform/Log.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstdio>
#include <cstring>
#include <exception>

namespace {

// The reader is lenient on purpose: configuration files and provider responses may carry
// comments, and the callers test the root's type themselves.
bool parse(char const *text, size_t length, Json::Value &target) {
    Log() << "SsoJson: Received '" << std::string(text ? text : "nil", text ? length : 3)
          << "' for string to JSON parsing.\n";
    if (text == nullptr || length == 0) {
        Log() << "SsoJson: ERROR! Source string is empty.\n";
        return false;
    }
    Json::Features features = Json::Features::all();
    Json::Features::strictMode();  // deliberately not applied: strict parsing would refuse comments
    Json::Reader reader(features);
    bool parsed = false;
    try {
        parsed = reader.parse(text, text + length, target, true);
    } catch (std::exception const &) {
        parsed = false;
    }
    if (!parsed) {
        Log() << "SsoJson: ERROR! Parsing string to JSON object failed.\n";
        if (!reader.good()) {
            Log() << "SsoJson: ERROR! Internal JSON error message: "
                  << reader.getFormattedErrorMessages() << ".\n";
        }
        return false;
    }
    return true;
}

}  // namespace

void print(Json::Value const &value) {
    Json::FastWriter writer;
    if (value.isObject()) {
        Log() << "SsoJson: JSON object: '" << writer.write(value) << "'.\n";
    } else if (value.isArray()) {
        std::string whole = writer.write(value);
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            Log() << "SsoJson: JSON " << (i + 1) << " object: '" << whole << "'.\n";
        }
    }
}

bool vectorToJson(std::vector<Json::Value> const &source, Json::Value &target) {
    if (source.empty()) {
        Log() << "SsoJson: ERROR! Source array of JSON objects is empty.\n";
        return false;
    }
    if (!target.isArray()) {
        Log() << "SsoJson: ERROR! Destination JSON object type is not JSON array.\n";
        return false;
    }
    for (auto const &value : source) {
        target.append(value);
    }
    return true;
}

bool readString(char const *text, Json::Value &target) {
    return parse(text, text ? std::strlen(text) : 0, target);
}

bool readString(std::string const &text, Json::Value &target) {
    return parse(text.c_str(), text.size(), target);
}

bool readFile(char const *path, Json::Value &target) {
    Log() << "SsoJson: Received path: '" << path << "' for file to JSON parsing.\n";
    if (path == nullptr || *path == '\0') {
        Log() << "SsoJson: ERROR! Source file path is empty.\n";
        return false;
    }
    if (FileIsEntity(path) != 1) {
        Log() << "SsoJson: ERROR! File is unreachable.\n";
        return false;
    }
    FILE *file = std::fopen(path, "rb");
    if (file == nullptr) {
        Log() << "SsoJson: ERROR! Can't open the file.\n";
        return false;
    }
    std::string text;
    char block[4096];
    for (;;) {
        size_t got = std::fread(block, 1, sizeof block, file);
        text.append(block, got);
        Log() << "SsoJson: Read " << got << " bytes from '" << path << "'.\n";
        if (got < sizeof block) {
            break;
        }
    }
    bool failed = std::ferror(file) != 0;
    bool atEnd = std::feof(file) != 0;
    if (std::fclose(file) != 0) {
        Log() << "SsoJson: ERROR! Can't close the file.\n";
        return false;
    }
    if (failed) {
        Log() << "SsoJson: ERROR! Error occurence during reading the file.\n";
        return false;
    }
    if (!atEnd) {
        Log() << "SsoJson: ERROR! EOF hasn't been reached.\n";
        return false;
    }
    Log() << "SsoJson: File: '" << path << "' was read successful.\n";
    bool parsed = readString(text, target);
    if (!parsed) {
        Log() << "SsoJson: ERROR! Parsing file data to JSON failed.\n";
    }
    return parsed;
}

bool writeString(Json::Value const &value, std::string &target) {
    if (value.empty()) {
        Log() << "SsoJson: ERROR! Source JSON object is empty.\n";
        return false;
    }
    if (!value.isConvertibleTo(Json::objectValue) && !value.isConvertibleTo(Json::arrayValue)) {
        Log() << "SsoJson: ERROR! Source JSON object type is not object or array.\n";
        return false;
    }
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    target = Json::writeString(builder, value);
    if (target.empty()) {
        Log() << "SsoJson: ERROR! Serializing JSON object to string failed.\n";
        return false;
    }
    return true;
}

bool writeFile(Json::Value const &value, char const *path) {
    Log() << "SsoJson: Destination path for JSON serializing: '" << path << "'.\n";
    if (path == nullptr || *path == '\0') {
        Log() << "SsoJson: ERROR! Destination path for JSON serializing is empty.\n";
        return false;
    }
    std::string text;
    if (!writeString(value, text)) {
        Log() << "SsoJson: ERROR! Serializing JSON object to file failed.\n";
        return false;
    }
    if (FileIsEntity(path) == -1) {
        Log() << "SsoJson: ERROR! Access denied for given file path: " << path << ".\n";
        return false;
    }
    FILE *file = std::fopen(path, "wb");
    if (file == nullptr) {
        Log() << "SsoJson: ERROR! Can't open the file.\n";
        return false;
    }
    size_t written = std::fwrite(text.data(), 1, text.size(), file);
    bool failed = std::ferror(file) != 0;
    if (std::fclose(file) != 0) {
        Log() << "SsoJson: ERROR! Can't close the file.\n";
        return false;
    }
    if (failed) {
        Log() << "SsoJson: ERROR! Error occurence during writing to the file.\n";
        return false;
    }
    if (written != text.size()) {
        Log() << "SsoJson: ERROR! " << written << " bytes was written instead of " << text.size()
              << ".\n";
        return false;
    }
    return true;
}

bool writeFile(std::vector<Json::Value> const &values, char const *path) {
    Json::Value array(Json::arrayValue);
    bool result = vectorToJson(values, array);
    if (!result) {
        Log() << "SsoJson: ERROR! Converting array of JSON objects to single JSON object failed.\n";
        return result;
    }
    result = writeFile(array, path);
    if (!result) {
        Log() << "SsoJson: ERROR! Serializing JSON object to file failed.\n";
    }
    return result;
}

MemberText readMember(Json::Value const &value, char const *key, std::string &text) {
    if (!value.isObject()) {
        return MemberText::Missing;
    }
    Json::Value const *member = value.find(key, key + std::strlen(key));
    if (member == nullptr) {
        return MemberText::Missing;
    }
    if (member->isObject() || member->isArray()) {
        return MemberText::WrongType;
    }
    text = member->asString();
    return MemberText::Text;
}
