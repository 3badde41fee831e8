// Reads single members of JSON objects, for everything in zul that takes records apart.
#include "console/fields.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace console {

using nlohmann::json;

std::string textOf(const json &object, const char *name) {
  auto at = object.find(name);
  return at != object.end() && at->is_string() ? at->get<std::string>() : "";
}

int64_t numberOf(const json &object, const char *name, int64_t otherwise) {
  auto at = object.find(name);
  if (at == object.end() || !at->is_number()) return otherwise;
  if (at->is_number_unsigned() && at->get<uint64_t>() > INT64_MAX) return otherwise;
  if (!at->is_number_float()) return at->get<int64_t>();
  double value = at->get<double>();
  return value > -9e18 && value < 9e18 ? static_cast<int64_t>(value) : otherwise;
}

uint64_t countOf(const json &object, const char *name) {
  auto at = object.find(name);
  if (at != object.end() && at->is_number_unsigned()) return at->get<uint64_t>();
  return static_cast<uint64_t>(std::max<int64_t>(numberOf(object, name), 0));
}

bool truthOf(const json &object, const char *name) {
  auto at = object.find(name);
  return at != object.end() && at->is_boolean() && at->get<bool>();
}

}  // namespace console
