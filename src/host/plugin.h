// A module instance: the loaded library, its entries and the plug-in context they share.

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

// Not synchronised: all calls belong to one thread. Stops and unloads itself when it is destroyed,
// before which the engine must not end.
class plugin {
 public:
  // Loads a library and checks that it has all a module needs. Throws std::runtime_error with one
  // line that names the path. The name is cut to the 39 characters that a context holds.
  plugin(const std::string& name, meter_engine& engine, const std::filesystem::path& path);
  plugin(const plugin&) = delete;  // the module knows the address of the context
  plugin& operator=(const plugin&) = delete;
  ~plugin() { stop(); }

  // The module's own version, or an empty text when it gives none.
  const char* version() const { return version_; }

  // Calls startCycle. Returns its status: anything but 0 is a failure, after which the module is
  // not entered again unless it is started again. The module must not be running.
  std::int32_t start_cycle(const torvasin_key_value_list& list);

  // Calls startThread, once the module runs.
  void start_thread() { entry_->startThread(&context_); }

  // Calls preStopCycle and stopCycle. Does nothing when the module is not running.
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
