// Shared helpers of the integer- and float-valued nodes.
#pragma once

#include <string>

#include "node.h"

namespace KivGenApi {
namespace detail {

// Range and increment check of a verified integer write or read.
void CheckIntRange(const CNode* n, int64_t v, int64_t min, int64_t max, int64_t inc);
void CheckFloatRange(const CNode* n, double v, double min, double max);
// FromString arguments; garbage raises InvalidArgumentException.
int64_t IntArgument(const CNode* n, const std::string& s);
double FloatArgument(const CNode* n, const std::string& s);
ERepresentation ParseRepresentation(const std::string& s, ERepresentation def);
std::string FormatInt(int64_t v, ERepresentation r);

}  // namespace detail
}  // namespace KivGenApi
