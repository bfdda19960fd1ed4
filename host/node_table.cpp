#include "node_table.h"

namespace cpd::host {

NodeTable::Id NodeTable::Refer(Id parent, const std::string& name, int64_t size) {
  const std::lock_guard lock(mutex_);
  const auto [child, is_new] = children_.try_emplace({parent, name}, last_ + 1);
  if (is_new) {
    ++last_;
    ++nodes_.at(parent).references;
    nodes_.emplace(last_, Node{.parent = parent, .name = name, .references = 0, .size = 0});
  }
  auto& node = nodes_.at(child->second);
  ++node.references;
  node.size = size;
  return child->second;
}

void NodeTable::Forget(Id id, uint64_t references) {
  const std::lock_guard lock(mutex_);
  // A node that goes gives up its reference to its parent. The root stays.
  for (; id != kRoot; references = 1) {
    const auto node = nodes_.find(id);
    if (node == nodes_.end()) return;
    if (node->second.references > references) {
      node->second.references -= references;
      return;
    }
    id = node->second.parent;
    children_.erase({id, node->second.name});
    nodes_.erase(node);
  }
}

void NodeTable::SetSize(Id id, int64_t size) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node != nodes_.end()) node->second.size = size;
}

std::optional<NodeTable::File> NodeTable::Find(Id id) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end()) return std::nullopt;
  return File{.path = id == kRoot ? "/" : PathLocked(id), .size = node->second.size};
}

std::optional<std::string> NodeTable::ChildPath(Id parent, const std::string& name) const {
  const std::lock_guard lock(mutex_);
  if (!nodes_.contains(parent)) return std::nullopt;
  return PathLocked(parent) + '/' + name;
}

// The root's own is empty.
std::string NodeTable::PathLocked(Id id) const {
  if (id == kRoot) return {};
  const auto& node = nodes_.at(id);
  return PathLocked(node.parent) + '/' + node.name;
}

}  // namespace cpd::host
