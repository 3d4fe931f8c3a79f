#include "host/plugin.h"

#include <dlfcn.h>

#include <utility>

namespace torvasin_host {
namespace {

bool is_complete(const torvasin_plugin_entry& entry) {
  return entry.startCycle != nullptr && entry.preStopCycle != nullptr &&
         entry.stopCycle != nullptr && entry.startThread != nullptr;
}

}  // namespace

void plugin::library_closer::operator()(void* library) const {
  dlclose(library);
}

plugin::plugin(std::string_view name, meter_engine& engine) {
  const std::size_t length = name.copy(context_.name, sizeof context_.name - 1);
  context_.name[length] = '\0';
  context_.engine = &engine;
}

bool plugin::load(const std::filesystem::path& path, std::string& error) {
  unload();
  // An absolute path: a bare file name would be searched for among the system's libraries.
  decltype(library_) library(
      dlopen(std::filesystem::absolute(path).c_str(), RTLD_NOW | RTLD_LOCAL));
  if (library == nullptr) {
    error = std::string("cannot load the module: ") + dlerror();
    return false;
  }
  const auto* entry =
      static_cast<const torvasin_plugin_entry*>(dlsym(library.get(), "plugin_entry_0_6"));
  const auto* version =
      static_cast<const char* const*>(dlsym(library.get(), "plugin_entry_torvasin_module_version"));
  if (entry == nullptr || version == nullptr) {
    error = "not a module: " + path.string() + " lacks the symbol " +
            (entry == nullptr ? "plugin_entry_0_6" : "plugin_entry_torvasin_module_version");
    return false;
  }
  if (!is_complete(*entry)) {
    error = "not a module: " + path.string() + " leaves an entry of plugin_entry_0_6 empty";
    return false;
  }
  library_ = std::move(library);
  entry_ = entry;
  version_ = *version != nullptr ? *version : "";
  return true;
}

std::int32_t plugin::start(const torvasin_key_value_list& list) {
  const std::int32_t status = entry_->startCycle(&context_, &list);
  if (status != 0) return status;
  running_ = true;
  entry_->startThread(&context_);
  return 0;
}

void plugin::stop() {
  if (!std::exchange(running_, false)) return;
  entry_->preStopCycle(&context_);
  entry_->stopCycle(&context_, 0);
}

void plugin::unload() {
  stop();
  entry_ = nullptr;
  version_ = "";
  library_.reset();
}

}  // namespace torvasin_host
