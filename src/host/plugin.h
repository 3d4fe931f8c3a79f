// A module instance: the loaded library, its entries and the plug-in context they share.

#ifndef TORVASIN_HOST_PLUGIN_H
#define TORVASIN_HOST_PLUGIN_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "host/meter_engine.h"
#include "module/torvasin.h"

namespace torvasin_host {

// Not synchronised: all calls belong to one thread. Stops and unloads itself when it is destroyed,
// before which the engine must not end.
class plugin {
 public:
  // The name is cut to the 39 characters that a context holds.
  plugin(std::string_view name, meter_engine& engine);
  plugin(const plugin&) = delete;  // the module knows the address of the context
  plugin& operator=(const plugin&) = delete;
  ~plugin() { unload(); }

  // Loads a library and checks that it has all a module needs. On failure returns false, with
  // `error` one line that names the path, and nothing is loaded.
  bool load(const std::filesystem::path& path, std::string& error);

  // The module's own version, or an empty text when it gives none or nothing is loaded.
  const char* version() const { return version_; }

  // Calls startCycle and, when it returns 0, startThread. Returns what startCycle returned:
  // anything else is a failure, after which the module is not entered again unless it is started
  // again. A module must be loaded and not be running.
  std::int32_t start(const torvasin_key_value_list& list);

  // Calls preStopCycle and stopCycle. Does nothing when the module is not running.
  void stop();

  // Stops the module and unloads its library. The engine must hold no callback of it any more.
  void unload();

  torvasin_plugin_context& context() { return context_; }

 private:
  struct library_closer {
    void operator()(void* library) const;
  };

  torvasin_plugin_context context_{};
  std::unique_ptr<void, library_closer> library_;
  const torvasin_plugin_entry* entry_ = nullptr;
  const char* version_ = "";
  bool running_ = false;
};

}  // namespace torvasin_host

#endif  // TORVASIN_HOST_PLUGIN_H
