#include "mount/node_table.h"

#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "remote/attributes.h"

namespace cpd::host {
namespace {

constexpr size_t kManyNodes = 16 << 10;  // of less than 0.5 KiB each

}  // namespace

/// Whether a name still refers to the same file. A directory's inode does not matter, because only
/// the names in it count. Neither does a file's if size and time are unchanged: file systems
/// without inodes of their own, such as FAT, sometimes renumber files.
/// File systems may also give the inode of a removed file to the next one. After a write, the times
/// of a file's last write and last change are equal, whereas a file that was renamed into place was
/// changed after it was written.
bool NodeTable::IsSameFile(const Node& node, const udisk_stat& now) {
  const auto& before = node.attributes;
  if (((before.st_mode ^ now.st_mode) & S_IFMT) != 0) return false;
  if (S_ISDIR(now.st_mode)) return true;
  const bool is_unwritten = IsSameTime(before.st_mtim, now.st_mtim);
  if (InodeOf(before) == InodeOf(now)) {
    return is_unwritten || node.changed != Clock::time_point() ||
           IsSameTime(now.st_mtim, now.st_ctim);
  }
  return is_unwritten && before.st_size == now.st_size && IsSameTime(before.st_ctim, now.st_ctim);
}

NodeTable::Id NodeTable::Lookup(Id parent, const std::string& name, const udisk_stat& attributes,
                                std::optional<Clock::time_point> asked) {
  const auto now = Clock::now();
  const std::lock_guard lock(mutex_);
  const Id id = FindOrMakeLocked({parent, name}, attributes, asked);
  auto& node = nodes_.at(id);
  if (!IsNewer(node, asked)) SetAttributesLocked(id, attributes, asked.value_or(now));
  ++node.references;
  node.kernel_size = node.attributes.st_size;
  node.looked_up = asked ? Clock::time_point() : now;
  return id;
}

/// Whether what is known of a file is newer than the disk's answer to a question asked at `asked`.
/// Never true of a directory: ListingCache forgets such an answer when a later one differs from it.
/// So the answer still holds, even if the disk has shown the directory again since `asked`.
bool NodeTable::IsNewer(const Node& node, std::optional<Clock::time_point> asked) {
  return asked && !S_ISDIR(node.attributes.st_mode) && (IsOutdated(node) || node.told > *asked);
}

NodeTable::Clock::time_point NodeTable::TakeLookup(Id id) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  return node == nodes_.end() ? Clock::time_point() : std::exchange(node->second.looked_up, {});
}

NodeTable::Id NodeTable::FindOrMakeLocked(const Name& name, const udisk_stat& attributes,
                                          std::optional<Clock::time_point> asked) {
  if (const auto child = children_.find(name); child != children_.end()) {
    const Id id = child->second;
    const auto& node = nodes_.at(id);
    if (IsNewer(node, asked) || IsSameFile(node, attributes)) return id;
    ReplaceLocked(id, name);
  }
  Id id = 0;
  if (const auto link = files_.find(InodeOf(attributes));
      attributes.st_nlink > 1 && !S_ISDIR(attributes.st_mode) && link != files_.end()) {
    id = link->second;
  } else {
    id = ++last_;
    nodes_.emplace(id, Node{.names = {}, .references = 0, .attributes = attributes});
    most_ = std::max(most_, nodes_.size());
  }
  AddNameLocked(id, name);
  return id;
}

void NodeTable::SetAttributesLocked(Id id, const udisk_stat& attributes, Clock::time_point asked) {
  auto& node = nodes_.at(id);
  const auto before = files_.find(InodeOf(node.attributes));
  if (before != files_.end() && before->second == id) files_.erase(before);
  node.attributes = attributes;
  node.is_outdated = false;
  node.told = asked;
  if (!S_ISDIR(attributes.st_mode)) files_[InodeOf(attributes)] = id;
}

void NodeTable::AddNameLocked(Id id, const Name& name) {
  children_[name] = id;
  ++nodes_.at(name.first).references;
  auto& node = nodes_.at(id);
  node.names.insert(node.names.begin(), name);
  node.replaced_name.reset();
}

void NodeTable::RemoveNameLocked(const Name& name) {
  const auto child = children_.find(name);
  if (child == children_.end()) return;
  auto& node = nodes_.at(child->second);
  std::erase(node.names, name);
  node.replaced_name.reset();
  children_.erase(child);
  nodes_.at(name.first).is_outdated = true;
  DropReferencesLocked(name.first, 1);
}

/// Takes a name from a node whose file no longer has it on the disk.
void NodeTable::ReplaceLocked(Id id, Name name) {
  RemoveNameLocked(name);
  nodes_.at(id).replaced_name = std::move(name);
}

void NodeTable::Forget(Id id, uint64_t references) {
  {
    const std::lock_guard lock(mutex_);
    DropReferencesLocked(id, references);
    if (!HasShrunkLocked()) return;
  }
  malloc_trim(0);  // a few live pieces of memory would keep the freed ones around them
}

/// Whether most of a great many nodes have gone since this last held.
bool NodeTable::HasShrunkLocked() {
  if (most_ < kManyNodes || nodes_.size() > most_ / 4) return false;
  most_ = nodes_.size();
  nodes_.rehash(0);
  return true;
}

// A node that is dropped gives up its names, and with them its references to its parents. The root
// is never dropped.
void NodeTable::DropReferencesLocked(Id id, uint64_t references) {
  const auto node = nodes_.find(id);
  if (id == kRoot || node == nodes_.end()) return;
  if (node->second.references > references) {
    node->second.references -= references;
    return;
  }
  const Node gone = std::move(node->second);
  nodes_.erase(node);
  const auto file = files_.find(InodeOf(gone.attributes));
  if (file != files_.end() && file->second == id) files_.erase(file);
  for (const auto& name : gone.names) {
    children_.erase(name);
    DropReferencesLocked(name.first, 1);
  }
}

bool NodeTable::Update(Id id, const udisk_stat& attributes,
                       std::optional<Clock::time_point> asked) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end()) return true;
  // A later file at the path may have the inode of the one that was replaced.
  if (node->second.names.empty() && node->second.replaced_name) return false;
  if (IsNewer(node->second, asked)) return true;
  if (id != kRoot && !IsSameFile(node->second, attributes)) {
    if (!node->second.names.empty()) ReplaceLocked(id, node->second.names.front());
    return false;
  }
  SetAttributesLocked(id, attributes, asked.value_or(Clock::now()));
  return true;
}

void NodeTable::Renew(Id id, const udisk_stat& attributes, std::optional<Clock::time_point> asked) {
  const std::lock_guard lock(mutex_);
  const auto found = nodes_.find(id);
  if (found == nodes_.end() || found->second.names.size() != 1) return;
  auto& node = found->second;
  if (!S_ISREG(attributes.st_mode) || !S_ISREG(node.attributes.st_mode)) return;
  if (attributes.st_nlink > 1 && files_.contains(InodeOf(attributes))) return;
  if (IsNewer(node, asked) || IsSameFile(node, attributes)) return;
  node.changed = {};
  node.written_end = 0;
  node.renewed = Clock::now();
  SetAttributesLocked(id, attributes, node.renewed);
}

bool NodeTable::IsSameFile(Id id, const udisk_stat& attributes) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  return node != nodes_.end() && IsSameFile(node->second, attributes);
}

bool NodeTable::IsRenewed(Id id) const {
  constexpr std::chrono::seconds kLongestDelay{2};
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  return node != nodes_.end() && Clock::now() - node->second.renewed < kLongestDelay;
}

void NodeTable::NoteChange(Id id) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end()) return;
  node->second.is_outdated = true;
  node->second.changed = Clock::now();
}

bool NodeTable::IsChangedSince(Id id, Clock::time_point time) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  return node != nodes_.end() && node->second.changed >= time;
}

void NodeTable::Grow(Id id, int64_t size) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end()) return;
  auto& attributes = node->second.attributes;
  node->second.is_outdated = true;
  node->second.changed = Clock::now();
  if (attributes.st_size < size) attributes.st_size = size;
  node->second.written_end = std::max(node->second.written_end, size);
  auto& kernel_size = node->second.kernel_size;
  if (kernel_size >= 0) kernel_size = std::max(kernel_size, size);
}

void NodeTable::ForgetEnd(Id id, Clock::time_point time) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node != nodes_.end() && node->second.changed < time) node->second.written_end = 0;
}

void NodeTable::NoteTold(Id id) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node != nodes_.end()) node->second.kernel_size = node->second.attributes.st_size;
}

void NodeTable::NoteUntold(Id id) {
  const std::lock_guard lock(mutex_);
  if (const auto node = nodes_.find(id); node != nodes_.end()) node->second.kernel_size = -1;
}

void NodeTable::SetMode(Id id, uint32_t mode) {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end()) return;
  auto& attributes = node->second.attributes;
  attributes.st_mode = (attributes.st_mode & S_IFMT) | (mode & kPermissions);
}

std::optional<NodeTable::File> NodeTable::Find(Id id) const {
  const std::lock_guard lock(mutex_);
  auto path = PathLocked(id);
  if (!path) return std::nullopt;
  const auto& node = nodes_.at(id);
  return File{.path = id == kRoot ? "/" : std::move(*path),
              .attributes = node.attributes,
              .told = node.told,
              .kernel_size = node.kernel_size,
              .end = std::max<int64_t>(node.attributes.st_size, node.written_end),
              .is_hidden = node.is_hidden};
}

std::optional<udisk_stat> NodeTable::LastAttributes(Id id) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end()) return std::nullopt;
  return node->second.attributes;
}

std::optional<udisk_stat> NodeTable::CurrentAttributes(Id id) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end() || node->second.is_outdated) return std::nullopt;
  return node->second.attributes;
}

std::optional<udisk_stat> NodeTable::CurrentAttributes(Id parent, const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto child = children_.find({parent, name});
  if (child == children_.end()) return std::nullopt;
  const auto& node = nodes_.at(child->second);
  return node.is_outdated ? std::nullopt : std::optional(node.attributes);
}

/// Never true of a directory: its `is_outdated` says only that it has lost a name.
bool NodeTable::IsOutdated(const Node& node) {
  return node.is_outdated && !S_ISDIR(node.attributes.st_mode);
}

bool NodeTable::IsOutdated(Id id) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  return node != nodes_.end() && IsOutdated(node->second);
}

bool NodeTable::IsOutdated(Id parent, const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto child = children_.find({parent, name});
  return child != children_.end() && IsOutdated(nodes_.at(child->second));
}

std::optional<std::pair<NodeTable::Id, std::string>> NodeTable::ReplacedName(Id id) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end() || !node->second.names.empty()) return std::nullopt;
  return node->second.replaced_name;
}

int64_t NodeTable::DirectorySize(Id id) const {
  const std::lock_guard lock(mutex_);
  const auto node = nodes_.find(id);
  if (node == nodes_.end() || node->second.names.empty()) return 0;
  return nodes_.at(node->second.names.front().first).attributes.st_size;
}

std::optional<std::string> NodeTable::ChildPath(Id parent, const std::string& name) const {
  const std::lock_guard lock(mutex_);
  auto path = PathLocked(parent);
  if (path) *path += '/' + name;
  return path;
}

std::optional<NodeTable::Id> NodeTable::NodeIfOnlyName(Id parent, const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto child = children_.find({parent, name});
  if (child == children_.end() || nodes_.at(child->second).names.size() > 1) return std::nullopt;
  return child->second;
}

std::vector<std::string> NodeTable::HiddenNames(Id directory) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (auto child = children_.lower_bound({directory, ""});
       child != children_.end() && child->first.first == directory; ++child) {
    if (nodes_.at(child->second).is_hidden) names.push_back(child->first.second);
  }
  return names;
}

bool NodeTable::IsHidden(Id parent, const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto child = children_.find({parent, name});
  return child != children_.end() && nodes_.at(child->second).is_hidden;
}

void NodeTable::Unlink(Id parent, const std::string& name) {
  const std::lock_guard lock(mutex_);
  RemoveNameLocked({parent, name});
}

void NodeTable::Rename(Id parent, const std::string& name, Id new_parent,
                       const std::string& new_name) {
  const std::lock_guard lock(mutex_);
  RenameLocked({parent, name}, {new_parent, new_name});
}

void NodeTable::RenameLocked(const Name& name, const Name& new_name) {
  RemoveNameLocked(new_name);
  const auto child = children_.find(name);
  if (child == children_.end()) return;
  AddNameLocked(child->second, new_name);
  RemoveNameLocked(name);
}

void NodeTable::Hide(Id parent, const std::string& name, const std::string& hidden_name) {
  const std::lock_guard lock(mutex_);
  RenameLocked({parent, name}, {parent, hidden_name});
  const auto child = children_.find({parent, hidden_name});
  if (child != children_.end()) nodes_.at(child->second).is_hidden = true;
}

void NodeTable::Show(Id parent, const std::string& hidden_name, const std::string& name) {
  const std::lock_guard lock(mutex_);
  RenameLocked({parent, hidden_name}, {parent, name});
  const auto child = children_.find({parent, name});
  if (child != children_.end()) nodes_.at(child->second).is_hidden = false;
}

NodeTable::Known NodeTable::ForgetDisk() {
  const std::lock_guard lock(mutex_);
  Known known;
  for (const auto& [id, node] : nodes_) known.nodes.push_back(id);
  for (const auto& [name, id] : children_) known.names.push_back(name);
  children_.clear();
  files_.clear();
  nodes_.clear();
  nodes_.emplace(kRoot, Node{.names = {}, .references = 1, .attributes = {}});
  return known;
}

std::vector<std::string> NodeTable::HiddenPaths() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> paths;
  for (const auto& [id, node] : nodes_) {
    if (!node.is_hidden) continue;
    if (auto path = PathLocked(id)) paths.push_back(std::move(*path));
  }
  return paths;
}

// The root's path is empty. A node without a name has no path, nor has anything below it.
std::optional<std::string> NodeTable::PathLocked(Id id) const {
  if (id == kRoot) return std::string();
  const auto node = nodes_.find(id);
  if (node == nodes_.end() || node->second.names.empty()) return std::nullopt;
  const auto& [parent, name] = node->second.names.front();
  auto path = PathLocked(parent);
  if (path) *path += '/' + name;
  return path;
}

}  // namespace cpd::host
