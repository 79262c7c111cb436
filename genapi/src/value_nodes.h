// Shared helpers of the integer- and float-valued nodes.
#pragma once

#include <string>
#include <vector>

#include "node.h"

namespace KivGenApi {
namespace detail {

// Range and increment check of a verified integer write or read.
void CheckIntRange(const CNode* n, int64_t v, int64_t min, int64_t max, int64_t inc);
void CheckFloatRange(const CNode* n, double v, double min, double max);
// NaN and the infinities are no value any float node accepts.
void CheckFinite(const CNode* n, double v);
// Listed values (ValidValueSet): anything else raises OutOfRangeException.
void CheckInList(const CNode* n, const FormulaValue& v, const std::vector<FormulaValue>& list);
// A node's list of valid values as the typed interfaces hand it out.
int64_autovector_t IntList(CNode* n, bool bounded);
double_autovector_t FloatList(CNode* n, bool bounded);
// FromString arguments; garbage raises InvalidArgumentException.
int64_t IntArgument(const CNode* n, const std::string& s);
double FloatArgument(const CNode* n, const std::string& s);
ERepresentation ParseRepresentation(const std::string& s, ERepresentation def);
std::string FormatInt(int64_t v, ERepresentation r);

}  // namespace detail
}  // namespace KivGenApi
