// Constructors of the node families, one per source file.
#pragma once

#include <memory>

#include "desc.h"
#include "node.h"

namespace KivGenApi {
namespace detail {

std::unique_ptr<CNode> MakeValueNode(CNodeMap* map, const NodeDesc& d);     // value_nodes.cpp
std::unique_ptr<CNode> MakeEnumNode(CNodeMap* map, const NodeDesc& d);      // enum_nodes.cpp
std::unique_ptr<CNode> MakeRegisterNode(CNodeMap* map, const NodeDesc& d);  // register_nodes.cpp
std::unique_ptr<CNode> MakeFormulaNode(CNodeMap* map, const NodeDesc& d);   // formula_nodes.cpp
std::unique_ptr<CNode> MakePortNode(CNodeMap* map, const NodeDesc& d);      // port_node.cpp

}  // namespace detail
}  // namespace KivGenApi
