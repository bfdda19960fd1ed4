#include "support/fake_user.h"

#include <dlfcn.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <utility>

namespace cpd::test {
namespace {

struct Identity {
  uid_t uid;
  std::optional<std::string> home;
  passwd entry{};
};

std::mutex lock;
std::optional<Identity> identity;  // empty: the real user

}  // namespace

FakeUser::FakeUser(uid_t uid, std::optional<std::string> home) {
  const std::lock_guard guard(lock);
  identity = Identity{.uid = uid, .home = std::move(home)};
}

FakeUser::~FakeUser() {
  const std::lock_guard guard(lock);
  identity.reset();
}

}  // namespace cpd::test

// These replace the C library's functions in everything that is linked into the test program.
extern "C" {

uid_t getuid() noexcept {
  using namespace cpd::test;
  const std::lock_guard guard(lock);
  return identity ? identity->uid : static_cast<uid_t>(syscall(SYS_getuid));
}

passwd* getpwuid(uid_t uid) {
  using namespace cpd::test;
  const std::lock_guard guard(lock);
  if (!identity) {
    static const auto real = reinterpret_cast<passwd* (*)(uid_t)>(dlsym(RTLD_NEXT, "getpwuid"));
    return real(uid);
  }
  if (!identity->home || uid != identity->uid) return nullptr;
  identity->entry.pw_dir = identity->home->data();
  return &identity->entry;
}

}  // extern "C"
