// A module instance: the loaded library, its entries and their plug-in context.

#ifndef TORVASIN_HOST_PLUGIN_H
#define TORVASIN_HOST_PLUGIN_H

#include <dlfcn.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "engine/meter_engine.h"
#include "module/torvasin.h"

namespace torvasin_host {

using torvasin_engine::meter_engine;

// Not synchronised: make all calls on one thread. The destructor stops and unloads the module; the
// engine must outlive it.
class plugin {
 public:
  // Loads a library and checks that it is a complete module. Throws std::runtime_error with one
  // line that names the path. The context holds 39 characters of the name; the rest is cut.
  plugin(const std::string& name, meter_engine& engine, const std::filesystem::path& path);
  plugin(const plugin&) = delete;  // the module knows the address of the context
  plugin& operator=(const plugin&) = delete;
  ~plugin() { stop(); }

  // The version that the module reports, or an empty text.
  const char* version() const { return version_; }

  // Calls startCycle and returns its status. After a failure, anything but 0, no entry is called
  // until the next start. The module must not be running.
  std::int32_t start_cycle(const torvasin_key_value_list& list);

  // Calls startThread, once the module runs.
  void start_thread() { entry_->startThread(&context_); }

  // Calls preStopCycle and stopCycle if the module is running.
  void stop();

 private:
  struct library_closer {
    void operator()(void* library) const { dlclose(library); }
  };

  std::unique_ptr<void, library_closer> library_;
  torvasin_plugin_context context_{};
  const torvasin_plugin_entry* entry_;
  const char* version_;
  bool running_ = false;
};

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_PLUGIN_H
