#include "remote/file_size.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include "remote/failure_reason.h"
#include "remote/hidden_name.h"
#include "remote/mode_guard.h"
#include "remote/paths.h"
#include "remote/remote_files.h"
#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::string_view_literals;

/// Whether the module is sure to exempt a name from the limit. It looks at the last dot of the
/// local path, which may lie in the mount point. That is not known here, so such a dot does not
/// count.
bool HasNoLimit(std::string_view path) {
  const size_t dot = path.rfind('.');
  return dot != std::string_view::npos && IsUnlimitedSuffix(path.substr(dot));
}

void Report(RemoteFiles& files, Outcome outcome, const std::string& path, int64_t end,
            const std::function<void(int error)>& done) {
  if (outcome == Outcome::kDone) return done(0);
  FindFailureReason(files, outcome, {.kind = Attempt::Kind::kWrite, .path = path, .end = end},
                    done);
}

void CutThroughLink(RemoteFiles& files, const std::string& path, int64_t size,
                    std::function<void(int error)> done) {
  const auto link = JoinPath(DirectoryOf(path), HiddenName() + ".tmp");
  const auto cut = std::make_shared<Outcome>();
  files.Link(path, link, [](Outcome) {});
  files.Truncate(link, static_cast<uint64_t>(size), [cut](Outcome outcome) { *cut = outcome; });
  files.Unlink(
      link, [cut, done = std::move(done)](Outcome) { done(*cut == Outcome::kDone ? 0 : EFBIG); });
}

}  // namespace

uint64_t SizeLimitOfThisProcess() {
  rlimit limit{.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
  getrlimit(RLIMIT_FSIZE, &limit);
  return limit.rlim_cur;
}

int64_t LargestSureSize() {
  return static_cast<int64_t>(std::min<uint64_t>(SizeLimitOfThisProcess(), kLargestFatFile));
}

bool TakesSize(std::string_view path, int64_t size) {
  return std::cmp_less_equal(size, kMostTruncateLength) || HasNoLimit(path);
}

void SetLargeSize(RemoteFiles& files, const std::string& path, int64_t size,
                  std::function<void(int error)> done) {
  files.GetAttributes(
      path, [&files, path, size, done = std::move(done)](const Result<udisk_stat>& result) {
        const int64_t present = result.value.st_size;
        if (result.error != 0 || present == size) return done(result.error);
        const ModeGuard access(files, path, result.value.st_mode);
        if (present > size) return CutThroughLink(files, path, size, done);
        files.Write(path, size - 1, "\0"sv, [&files, path, size, done](Outcome outcome) {
          Report(files, outcome, path, size, done);
        });
      });
}

}  // namespace cpd::host
