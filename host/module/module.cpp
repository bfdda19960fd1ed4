#include "module/module.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace cpd::host {
namespace {

constexpr char kDescriptor[] = "CPD_DRV_MODULE";
constexpr std::string_view kName = "udisk-redir";
constexpr uint16_t kVersion = 2;

/// The module that is installed with this program; where there is none, that of the same build.
std::string DefaultModule() {
  const auto program = std::filesystem::read_symlink("/proc/self/exe");
  const auto libraries = program.parent_path().parent_path() / "lib";
  const auto installed = libraries / "cpd" / "udisk-redir.so";
  const auto built = libraries / "udisk-redir.so";
  std::error_code ignored;
  const bool use_built =
      !std::filesystem::exists(installed, ignored) && std::filesystem::exists(built, ignored);
  return (use_built ? built : installed).string();
}

}  // namespace

void CloseDriver::operator()(CpdDriver* driver) const {
  driver->Close(0);
  std::default_delete<CpdDriver>()(driver);
}

void Module::Unload::operator()(void* handle) const { dlclose(handle); }

Module::Module(const std::string& path) {
  // An absolute path keeps the loader from looking in its search path.
  const std::string file =
      path.empty() ? DefaultModule() : std::filesystem::absolute(path).string();
  handle_.reset(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (handle_ == nullptr) {
    throw std::runtime_error(fmt::format("cannot load the module: {}", dlerror()));
  }
  descriptor_ = static_cast<const CpdDriverModule*>(dlsym(handle_.get(), kDescriptor));
  if (descriptor_ == nullptr) {
    throw std::runtime_error(fmt::format("{} has no symbol {}", file, kDescriptor));
  }
  if (descriptor_->version != kVersion || descriptor_->open == nullptr ||
      descriptor_->name == nullptr || descriptor_->name != kName) {
    throw std::runtime_error(fmt::format("{} is not version {} of {}", file, kVersion, kName));
  }
}

Driver Module::Open(CpdDevice* device, const std::string& policy) const {
  Driver driver(descriptor_->open(device, policy));
  if (driver == nullptr) throw std::runtime_error("the module could not open the disk");
  return driver;
}

}  // namespace cpd::host
