#pragma once

#include <json/value.h>

#include <string>
#include <vector>

// JSON helpers. Every failure is logged ("SsoJson: ...") and returned as false. No state; any
// thread. None of them throws on bad input.

// Logs an object as one line, or an array as one line per element (each showing the whole
// array); other values log nothing.
void print(Json::Value const &value);

// Appends each value of `source` to `target`, which must be an array. False for an empty source
// or a target of another type.
bool vectorToJson(std::vector<Json::Value> const &source, Json::Value &target);

// Parses `text` leniently (comments and scalar roots accepted) into `target`.
bool readString(char const *text, Json::Value &target);
bool readString(std::string const &text, Json::Value &target);

// Reads the whole file at `path` and parses it as readString does.
bool readFile(char const *path, Json::Value &target);

// Serializes a non-empty object or array on one line, members sorted by key, into `target`.
bool writeString(Json::Value const &value, std::string &target);

// Serializes `value` (or the array made of `values`) to the file at `path`, truncating it.
bool writeFile(Json::Value const &value, char const *path);
bool writeFile(std::vector<Json::Value> const &values, char const *path);

// How one member of a JSON value reads as text.
enum class MemberText { Missing, Text, WrongType };

// Reads member `key` of `value` as text without ever throwing: numbers and booleans come out
// as jsoncpp's asString writes them and null as "". Missing when `value` is not an object or
// has no such member; WrongType when the member is an object or an array. `text` is written
// only for Text.
MemberText readMember(Json::Value const &value, char const *key, std::string &text);
