// Members of JSON objects that other hosts and other versions wrote: what is missing or of another
// type reads as nothing.
#pragma once
#include <stdint.h>

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace console {

std::string textOf(const nlohmann::json &object, const char *name);
// A number cut to a whole one; `otherwise` also stands for one that has no room here.
int64_t numberOf(const nlohmann::json &object, const char *name, int64_t otherwise = 0);
// The same for what is counted: nothing is negative.
uint64_t countOf(const nlohmann::json &object, const char *name);
bool truthOf(const nlohmann::json &object, const char *name);

}  // namespace console
