// Paths as the protocol carries them: they begin with '/' at the disk's root.
#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace cpd::host {

/// The directory that contains a path; for the root, the root.
inline std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return path.substr(0, slash == 0 ? 1 : slash);
}

inline std::string_view NameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

inline std::string JoinPath(const std::string& directory, std::string_view name) {
  std::string path = directory;
  if (path != "/") path += '/';
  return path.append(name);
}

/// Whether `path` is `top` or lies below it.
inline bool IsWithin(const std::string& path, const std::string& top) {
  return path == top || path.starts_with(JoinPath(top, ""));
}

/// In a map whose keys are paths, the range of the keys below a directory.
template <class Map>
auto Below(Map& map, const std::string& directory) {
  std::string limit = JoinPath(directory, "");
  const auto first = map.lower_bound(limit);
  ++limit.back();
  return std::pair(first, map.lower_bound(limit));
}

}  // namespace cpd::host
