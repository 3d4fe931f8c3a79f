#include "host/plugin.h"

#include <stdexcept>
#include <utility>

namespace torvasin_host {

plugin::plugin(const std::string& name, meter_engine& engine, const std::filesystem::path& path)
    // dlopen would look for a bare file name among the system's libraries.
    : library_(dlopen(std::filesystem::absolute(path).c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (library_ == nullptr) {
    throw std::runtime_error(std::string("cannot load the module: ") + dlerror());
  }
  const auto symbol = [&](const char* wanted) {
    const void* found = dlsym(library_.get(), wanted);
    if (found != nullptr) return found;
    throw std::runtime_error("not a module: " + path.string() + " lacks the symbol " + wanted);
  };
  entry_ = static_cast<const torvasin_plugin_entry*>(symbol("plugin_entry_0_6"));
  version_ = *static_cast<const char* const*>(symbol("plugin_entry_torvasin_module_version"));
  if (version_ == nullptr) version_ = "";
  if (entry_->startCycle == nullptr || entry_->preStopCycle == nullptr ||
      entry_->stopCycle == nullptr || entry_->startThread == nullptr) {
    throw std::runtime_error("not a module: " + path.string() +
                             " leaves an entry of plugin_entry_0_6 empty");
  }
  name.copy(context_.name, sizeof context_.name - 1);
  context_.engine = &engine;
}

std::int32_t plugin::start_cycle(const torvasin_key_value_list& list) {
  const std::int32_t status = entry_->startCycle(&context_, &list);
  running_ = status == 0;
  return status;
}

void plugin::stop() {
  if (!std::exchange(running_, false)) return;
  entry_->preStopCycle(&context_);
  entry_->stopCycle(&context_, 0);
}

}  // namespace torvasin_host
