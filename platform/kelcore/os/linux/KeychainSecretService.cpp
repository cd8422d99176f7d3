// The Secret Service store, through libsecret.
//
// libsecret's synchronous calls can block for two D-Bus timeouts (25 s each) on a hung service,
// and a lookup in a locked collection answers "nothing" without an error. So every call here is
// asynchronous, runs on a private GMainContext and is cancelled when its time is up; and before
// the store is trusted, the service is opened and its default collection found and unlocked,
// each step bounded.
//
// libsecret, and the GLib, GIO and the dozen libraries it brings, are loaded when a Secret
// Service keychain is first asked for, not with kelcore: loading them costs every process that
// links kelcore about 2 ms at start, and most runs (a query, a download, a script) never open a
// keychain. A machine without libsecret gets "no Secret Service", as one without a session bus.

#include <dlfcn.h>
#include <libsecret/secret.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "KeychainBackend.h"
#include "kelcore/Strings.h"

namespace kelcore {
namespace {

using std::chrono::milliseconds;

// Every libsecret and GLib function this file calls.
#define KELCORE_SECRET_FUNCTIONS(X) \
  X(g_async_result_get_type) X(g_bus_get) X(g_bus_get_finish) X(g_cancellable_cancel) \
  X(g_cancellable_new) X(g_dbus_connection_set_exit_on_close) X(g_error_free) X(g_file_test) \
  X(g_free) X(g_getenv) X(g_hash_table_insert) X(g_hash_table_new_full) X(g_hash_table_unref) \
  X(g_list_append) X(g_list_free) X(g_list_free_full) X(g_main_context_iteration) \
  X(g_main_context_new) X(g_main_context_pop_thread_default) X(g_main_context_push_thread_default) \
  X(g_main_context_unref) X(g_object_ref) X(g_object_unref) X(g_source_attach) X(g_source_destroy) \
  X(g_source_set_callback) X(g_source_unref) X(g_str_equal) X(g_str_hash) X(g_strdup) \
  X(g_timeout_source_new) X(g_type_check_instance_cast) X(secret_collection_for_alias) \
  X(secret_collection_for_alias_finish) X(secret_collection_get_locked) X(secret_item_get_locked) \
  X(secret_item_get_type) X(secret_service_clear) X(secret_service_clear_finish) \
  X(secret_service_get_type) X(secret_service_lookup) X(secret_service_lookup_finish) \
  X(secret_service_open) X(secret_service_open_finish) X(secret_service_search) \
  X(secret_service_search_finish) X(secret_service_store) X(secret_service_store_finish) \
  X(secret_service_unlock) X(secret_service_unlock_finish) X(secret_value_get) X(secret_value_new) \
  X(secret_value_unref)

struct SecretLibrary {
#define KELCORE_SECRET_POINTER(name) decltype(&::name) name = nullptr;
  KELCORE_SECRET_FUNCTIONS(KELCORE_SECRET_POINTER)
#undef KELCORE_SECRET_POINTER
};

// Null when libsecret, or one of the functions, is not there. Loaded once and never unloaded:
// GLib cannot be unloaded safely.
const SecretLibrary* LoadSecretLibrary() {
  static const SecretLibrary* const library = []() -> const SecretLibrary* {
    void* handle = ::dlopen("libsecret-1.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!handle) return nullptr;
    auto* loaded = new SecretLibrary;
    bool complete = true;
#define KELCORE_SECRET_LOAD(name)                                                  \
  loaded->name = reinterpret_cast<decltype(loaded->name)>(::dlsym(handle, #name)); \
  complete = complete && loaded->name != nullptr;
    KELCORE_SECRET_FUNCTIONS(KELCORE_SECRET_LOAD)
#undef KELCORE_SECRET_LOAD
    if (complete) return loaded;
    delete loaded;
    return nullptr;
  }();
  return library;
}

// Calls the loaded function. Each name below is an object, not a function, so that a call in
// this file (GLib's macros included) finds it and never the real function through the argument
// types; and it converts to the real function's pointer where GLib takes one (g_free as a
// destroy notifier), or where a template must see one (`+name`). Only reached once
// LoadSecretLibrary has succeeded.
// GCC warns that a function type's attributes (warn_unused_result) do not carry into a template
// argument: they need not, the calls are the library's own.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-attributes"
template <auto Function>
struct LoadedFunction {
  using Pointer = std::remove_reference_t<decltype(std::declval<SecretLibrary>().*Function)>;
  template <class... Args>
  auto operator()(Args&&... args) const {
    return (LoadSecretLibrary()->*Function)(std::forward<Args>(args)...);
  }
  operator Pointer() const { return LoadSecretLibrary()->*Function; }
};
#define KELCORE_SECRET_NAME(name) constexpr LoadedFunction<&SecretLibrary::name> name{};
KELCORE_SECRET_FUNCTIONS(KELCORE_SECRET_NAME)
#undef KELCORE_SECRET_NAME
#pragma GCC diagnostic pop

const SecretSchema* Schema() {
  static const SecretSchema* schema = [] {
    auto* s = new SecretSchema{};
    s->name = "com.corvane.kelcore.Secret";
    s->flags = SECRET_SCHEMA_NONE;
    s->attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    s->attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    // "user" or "session": where the secret was put, so a read finds only what its flag names.
    s->attributes[2] = {"scope", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return s;
  }();
  return schema;
}

struct GObjectUnref {
  void operator()(gpointer object) const {
    if (object) g_object_unref(object);
  }
};
template <class T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;

struct HashTableUnref {
  void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, HashTableUnref>;

// One asynchronous call's landing place. It outlives an abandoned call: the callback may still
// arrive on a later turn of the context and must find somewhere to put its result.
struct Landing {
  bool done = false;
  GAsyncResult* result = nullptr;
  ~Landing() {
    if (result) g_object_unref(result);
  }
};

void OnCallReady(GObject*, GAsyncResult* result, gpointer data) {
  std::unique_ptr<std::shared_ptr<Landing>> landing(static_cast<std::shared_ptr<Landing>*>(data));
  (*landing)->result = G_ASYNC_RESULT(g_object_ref(result));
  (*landing)->done = true;
}

gboolean OnTimeout(gpointer data) {
  *static_cast<bool*>(data) = true;
  return G_SOURCE_REMOVE;
}

// A private main context, iterated only while a call runs and only under its mutex, so callers
// on any thread see one call at a time and nothing ever runs on the host's GLib loop.
class BoundedContext {
 public:
  BoundedContext() : context_(g_main_context_new()) {}
  BoundedContext(const BoundedContext&) = delete;
  BoundedContext& operator=(const BoundedContext&) = delete;
  ~BoundedContext() { g_main_context_unref(context_); }

  // Starts one call with start(cancellable, callback, userData) and waits at most `timeout` for
  // its result; on timeout the call is cancelled and null returned. Caller holds the mutex.
  template <class Start>
  GObjectPtr<GAsyncResult> Run(milliseconds timeout, Start&& start) {
    auto landing = std::make_shared<Landing>();
    GObjectPtr<GCancellable> cancellable(g_cancellable_new());
    g_main_context_push_thread_default(context_);
    start(cancellable.get(), &OnCallReady, new std::shared_ptr<Landing>(landing));
    bool timedOut = false;
    GSource* timer = g_timeout_source_new(static_cast<guint>(timeout.count()));
    g_source_set_callback(timer, &OnTimeout, &timedOut, nullptr);
    g_source_attach(timer, context_);
    while (!landing->done && !timedOut) g_main_context_iteration(context_, TRUE);
    g_source_destroy(timer);
    g_source_unref(timer);
    if (!landing->done) g_cancellable_cancel(cancellable.get());
    g_main_context_pop_thread_default(context_);
    if (!landing->done) return nullptr;
    return GObjectPtr<GAsyncResult>(G_ASYNC_RESULT(g_object_ref(landing->result)));
  }

  std::mutex mutex;

 private:
  GMainContext* context_;
};

std::string Describe(const GErrorPtr& error, std::string_view fallback) {
  return error && error->message ? std::string(error->message) : std::string(fallback);
}

class SecretServiceKeychain final : public keychain_detail::KeychainBackend<SecretServiceKeychain> {
 public:
  SecretServiceKeychain(std::unique_ptr<BoundedContext> context, GObjectPtr<SecretService> service,
                        milliseconds timeout)
      : context_(std::move(context)), service_(std::move(service)), timeout_(timeout) {}

  Result AddPassword(const std::u16string& service, const std::u16string& account, const std::u16string& secret,
                     bool persistent) override {
    const std::string serviceText = UTF16ToUTF8(service);
    const std::string accountText = UTF16ToUTF8(account);
    const std::string label = serviceText + " (" + accountText + ")";
    const std::string bytes = UTF16ToUTF8(secret);
    Attributes attributes = MakeAttributes(serviceText, accountText, persistent);
    SecretValue* value = secret_value_new(bytes.data(), static_cast<gssize>(bytes.size()), "text/plain");
    std::lock_guard lock(context_->mutex);
    GErrorPtr error;
    const auto stored = Call("storing a secret", +secret_service_store_finish, error,
                             [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
                               secret_service_store(service_.get(), Schema(), attributes.get(),
                                                    persistent ? SECRET_COLLECTION_DEFAULT : SECRET_COLLECTION_SESSION,
                                                    label.c_str(), value, cancellable, callback, data);
                             });
    secret_value_unref(value);
    if (stored && !*stored) {
      keychain_detail::Warn("Secret Service: storing a secret failed: " + Describe(error, "unknown error"));
    }
    return stored && *stored ? kResultOK : kErrorFailed;
  }

  std::u16string GetPassword(const std::u16string& service, const std::u16string& account, bool persistent) override {
    std::lock_guard lock(context_->mutex);
    GErrorPtr error;
    const auto found = CallForItem("reading a secret", +secret_service_lookup, +secret_service_lookup_finish,
                                   MakeAttributes(UTF16ToUTF8(service), UTF16ToUTF8(account), persistent), error);
    if (!found) return {};
    SecretValue* value = *found;
    if (!value) {
      if (error) {
        keychain_detail::Warn("Secret Service: reading a secret failed: " + Describe(error, ""));
      } else if (IsLocked(MakeAttributes(UTF16ToUTF8(service), UTF16ToUTF8(account), persistent).get())) {
        // A locked item reads as "nothing stored", exactly like a missing one; say which it was.
        keychain_detail::Warn(
            "Secret Service: a stored secret is locked and could not be unlocked; reading it as absent");
      }
      return {};
    }
    gsize length = 0;
    const gchar* bytes = secret_value_get(value, &length);
    std::u16string secret = UTF8ToUTF16(std::string_view(bytes, length));
    secret_value_unref(value);
    return secret;
  }

  bool RemovePassword(const std::u16string& service, const std::u16string& account, bool persistent) override {
    std::lock_guard lock(context_->mutex);
    GErrorPtr error;
    const auto removed = CallForItem("removing a secret", +secret_service_clear, +secret_service_clear_finish,
                                     MakeAttributes(UTF16ToUTF8(service), UTF16ToUTF8(account), persistent), error);
    if (error) keychain_detail::Warn("Secret Service: removing a secret failed: " + Describe(error, ""));
    return removed && *removed;
  }

 private:
  // One call, bounded by the store's timeout: start(cancellable, callback, data) begins it and
  // finish(service, result, &error) takes its result. nullopt (with a warning) when it timed out. Caller
  // holds the mutex.
  template <class Value, class Start>
  std::optional<Value> Call(std::string_view what, Value (*finish)(SecretService*, GAsyncResult*, GError**),
                            GErrorPtr& error, Start&& start) {
    auto done = context_->Run(timeout_, std::forward<Start>(start));
    if (!done) {
      keychain_detail::Warn("Secret Service: " + std::string(what) + " timed out");
      return std::nullopt;
    }
    GError* raw = nullptr;
    Value result = finish(service_.get(), done.get(), &raw);
    error.reset(raw);
    return result;
  }

  // A lookup or a removal: begin(service, schema, attributes, ...) and its finish.
  template <class Value>
  std::optional<Value> CallForItem(std::string_view what,
                                   void (*begin)(SecretService*, const SecretSchema*, GHashTable*, GCancellable*,
                                                 GAsyncReadyCallback, gpointer),
                                   Value (*finish)(SecretService*, GAsyncResult*, GError**),
                                   const Attributes& attributes, GErrorPtr& error) {
    return Call(what, finish, error, [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
      begin(service_.get(), Schema(), attributes.get(), cancellable, callback, data);
    });
  }

  // Whether an item matching `attributes` exists but is locked. Caller holds the mutex.
  bool IsLocked(GHashTable* attributes) {
    auto done = context_->Run(timeout_, [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
      secret_service_search(service_.get(), Schema(), attributes, SECRET_SEARCH_ALL, cancellable, callback, data);
    });
    if (!done) return false;
    GError* raw = nullptr;
    GList* items = secret_service_search_finish(service_.get(), done.get(), &raw);
    GErrorPtr error(raw);
    bool locked = false;
    for (GList* item = items; item; item = item->next) locked |= secret_item_get_locked(SECRET_ITEM(item->data)) != FALSE;
    g_list_free_full(items, g_object_unref);
    return locked;
  }

  static Attributes MakeAttributes(const std::string& service, const std::string& account, bool persistent) {
    Attributes attributes(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
    g_hash_table_insert(attributes.get(), g_strdup("service"), g_strdup(service.c_str()));
    g_hash_table_insert(attributes.get(), g_strdup("account"), g_strdup(account.c_str()));
    g_hash_table_insert(attributes.get(), g_strdup("scope"), g_strdup(persistent ? "user" : "session"));
    return attributes;
  }

  std::unique_ptr<BoundedContext> context_;
  GObjectPtr<SecretService> service_;
  const milliseconds timeout_;
};

// Where GDBus would find the session bus without starting one: an explicit address, or the
// per-user bus socket. Without either it would try X11 autolaunch, which on a headless machine
// only fails slowly.
bool SessionBusConfigured() {
  const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = g_getenv("XDG_RUNTIME_DIR");
  if (!runtime || !*runtime) return false;
  std::string socket = std::string(runtime) + "/bus";
  return g_file_test(socket.c_str(), G_FILE_TEST_EXISTS);
}

// One bounded step of the probe: start(cancellable, callback, data) begins the call and
// finish(result, &error) takes its result. Null, with the reason, when it does not answer within
// `timeout` (`late`) or finishes without an object (`failed`, and GLib's own message).
template <class T, class Start, class Finish>
GObjectPtr<T> ProbeStep(BoundedContext& context, milliseconds timeout, Start&& start, Finish&& finish,
                        std::string_view late, std::string_view failed, std::string& reason) {
  auto done = context.Run(timeout, std::forward<Start>(start));
  if (!done) {
    reason = late;
    return nullptr;
  }
  GError* raw = nullptr;
  GObjectPtr<T> object(finish(done.get(), &raw));
  GErrorPtr error(raw);
  if (!object) reason = std::string(failed) + (error ? ": " + Describe(error, "") : std::string());
  return object;
}

// Connects to the session bus and opens a Secret Service session on it. Kept in a function of
// its own: GIO's name-watching bookkeeping behind the service proxy is never freed, and the leak
// checker's suppression names this function and nothing wider. Caller holds the context's mutex.
GObjectPtr<SecretService> OpenSessionService(BoundedContext& context, milliseconds timeout, std::string& reason) {
  GObjectPtr<GDBusConnection> connection = ProbeStep<GDBusConnection>(
      context, timeout,
      [](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
        g_bus_get(G_BUS_TYPE_SESSION, cancellable, callback, data);
      },
      [](GAsyncResult* result, GError** error) { return g_bus_get_finish(result, error); },
      "the D-Bus session bus did not answer in time", "cannot connect to the D-Bus session bus", reason);
  if (!connection) return nullptr;
  // The shared session connection would otherwise end the whole process when the bus goes away;
  // losing the keyring must not take the host down.
  g_dbus_connection_set_exit_on_close(connection.get(), FALSE);

  return ProbeStep<SecretService>(
      context, timeout,
      [](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
        secret_service_open(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_OPEN_SESSION, cancellable, callback, data);
      },
      [](GAsyncResult* result, GError** error) { return secret_service_open_finish(result, error); },
      "the Secret Service did not answer in time", "cannot open the Secret Service", reason);
}

// Opens the Secret Service and makes sure its default collection is there and unlocked; null
// and the reason when it is not usable.
GObjectPtr<SecretService> Probe(BoundedContext& context, milliseconds timeout, milliseconds unlockTimeout,
                                std::string& reason) {
  std::lock_guard lock(context.mutex);
  GObjectPtr<SecretService> service = OpenSessionService(context, timeout, reason);
  if (!service) return nullptr;

  SecretService* servicePtr = service.get();
  GObjectPtr<SecretCollection> collection = ProbeStep<SecretCollection>(
      context, timeout,
      [servicePtr](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
        secret_collection_for_alias(servicePtr, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancellable,
                                    callback, data);
      },
      [](GAsyncResult* result, GError** error) { return secret_collection_for_alias_finish(result, error); },
      "the Secret Service did not name its default collection in time",
      "the Secret Service has no default collection", reason);
  if (!collection) return nullptr;
  if (secret_collection_get_locked(collection.get())) {
    // Unlocking may show the user a password prompt, hence the longer wait.
    GList* objects = g_list_append(nullptr, collection.get());
    auto unlocked = context.Run(unlockTimeout, [&](GCancellable* cancellable, GAsyncReadyCallback callback,
                                                   gpointer data) {
      secret_service_unlock(servicePtr, objects, cancellable, callback, data);
    });
    g_list_free(objects);
    if (!unlocked) {
      reason = "the default collection stayed locked (no answer to the unlock request in time)";
      return nullptr;
    }
    GError* raw = nullptr;
    const gint count = secret_service_unlock_finish(servicePtr, unlocked.get(), nullptr, &raw);
    GErrorPtr error(raw);
    if (count < 1) {
      reason = "the default collection stayed locked" + (error ? ": " + Describe(error, "") : std::string());
      return nullptr;
    }
  }
  return service;
}

}  // namespace

namespace keychain_detail {

classref::InterfaceRef<IKeychainUtils> OpenSecretService(milliseconds timeout, milliseconds unlockTimeout,
                                                         std::string& reason) {
  if (!LoadSecretLibrary()) {
    reason = "libsecret is not installed";
    return {};
  }
  if (!SessionBusConfigured()) {
    reason = "no D-Bus session bus";
    return {};
  }
  auto context = std::make_unique<BoundedContext>();
  GObjectPtr<SecretService> service = Probe(*context, timeout, unlockTimeout, reason);
  if (!service) return {};
  return classref::InterfaceRef<IKeychainUtils>(classref::AllocateClassInstance<SecretServiceKeychain>(
      std::move(context), std::move(service), std::chrono::seconds(10)));
}

}  // namespace keychain_detail

classref::InterfaceRef<IKeychainUtils> KeychainUtils::CreateSecretServiceKeychain(milliseconds timeout,
                                                                                milliseconds unlockTimeout) {
  std::string reason;
  return keychain_detail::OpenSecretService(timeout, unlockTimeout, reason);
}

}  // namespace kelcore
