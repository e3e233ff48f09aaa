#include "platform/linux/secret_service_keychain.h"

#include <condition_variable>
#include <libsecret/secret.h>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>

#include "base/unicode.h"

namespace platform::freedesktop {
namespace {

template <auto release>
struct Release {
  template <class T>
  void operator()(T* object) const {
    release(object);
  }
};
template <class T>
using GObjectPointer = std::unique_ptr<T, Release<g_object_unref>>;
using Text = std::unique_ptr<char, Release<g_free>>;
using Attributes = std::unique_ptr<GHashTable, Release<g_hash_table_unref>>;
using Value = std::unique_ptr<SecretValue, Release<secret_value_unref>>;
using Items = std::unique_ptr<GList, decltype([](GList* items) { g_list_free_full(items, g_object_unref); })>;

const SecretSchema kSchema = {"com.stashwick.Keychain",
                              SECRET_SCHEMA_NONE,
                              {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

// Cancels what is under way when the patience is over.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds patience)
      : waiter_([this, until = std::chrono::steady_clock::now() + patience](const std::stop_token& stopped) {
          std::unique_lock lock(mutex_);
          if (!ended_.wait_until(lock, stopped, until, [] { return false; }) && !stopped.stop_requested())
            g_cancellable_cancel(cancellable_.get());
        }) {}

  GCancellable* cancellable() const { return cancellable_.get(); }

 private:
  GObjectPointer<GCancellable> cancellable_{g_cancellable_new()};
  std::mutex mutex_;
  std::condition_variable_any ended_;
  std::jthread waiter_;
};

class Failure {
 public:
  ~Failure() { g_clear_error(&error_); }
  GError** slot() { return &error_; }

  // What the failed call means to the keychain's user.
  ports::OSStatus status() const {
    if (g_error_matches(error_, SECRET_ERROR, SECRET_ERROR_IS_LOCKED))
      return ports::errSecInteractionNotAllowed;
    if (g_error_matches(error_, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED) ||
        g_error_matches(error_, G_DBUS_ERROR, G_DBUS_ERROR_AUTH_FAILED))
      return ports::errSecAuthFailed;
    return ports::errSecNotAvailable;
  }

 private:
  GError* error_ = nullptr;
};

Attributes attributesOf(const ports::KeychainQuery& query) {
  Attributes attributes(g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, g_free));
  if (query.service)
    g_hash_table_insert(attributes.get(), gpointer("service"), g_strdup(query.service->c_str()));
  if (query.account)
    g_hash_table_insert(attributes.get(), gpointer("account"), g_strdup(query.account->c_str()));
  return attributes;
}

// Marked as text where it is text: other programs show it then.
Value valueOf(std::string_view bytes) {
  const bool isText = base::isValidUTF8(bytes) && bytes.find('\0') == std::string_view::npos;
  return Value(secret_value_new(bytes.empty() ? "" : bytes.data(), static_cast<gssize>(bytes.size()),
                                isText ? "text/plain" : "application/octet-stream"));
}

// A conversation with the service that ends in time.
class Conversation {
 public:
  explicit Conversation(std::chrono::milliseconds patience) : deadline_(patience) {}

  // errSecSuccess once there is somebody to talk to.
  ports::OSStatus open() {
    Failure failure;
    // The agent outlives its bus.
    if (const GObjectPointer<GDBusConnection> bus{
            g_bus_get_sync(G_BUS_TYPE_SESSION, cancellable(), failure.slot())})
      g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    else
      return failure.status();
    service_.reset(secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_OPEN_SESSION,
                                            cancellable(), failure.slot()));
    return service_ ? ports::errSecSuccess : failure.status();
  }

  // errSecItemNotFound when nothing matches.
  ports::OSStatus search(const ports::KeychainQuery& query, bool all) {
    Failure failure;
    items_.reset(secret_service_search_sync(service_.get(), &kSchema, attributesOf(query).get(),
                                            all ? SECRET_SEARCH_ALL : SECRET_SEARCH_NONE, cancellable(),
                                            failure.slot()));
    if (*failure.slot() != nullptr) return failure.status();
    return items_ ? ports::errSecSuccess : ports::errSecItemNotFound;
  }
  const GList* items() const { return items_.get(); }

  // The secret of a found item, or why it cannot be had.
  ports::OSStatus loadSecret(SecretItem* item, std::optional<base::Secret>& into) {
    if (secret_item_get_locked(item)) return ports::errSecInteractionNotAllowed;
    Failure failure;
    if (!secret_item_load_secret_sync(item, cancellable(), failure.slot())) return failure.status();
    const Value value(secret_item_get_secret(item));
    if (!value) return ports::errSecNotAvailable;
    gsize size = 0;
    const char* bytes = secret_value_get(value.get(), &size);
    into = base::Secret(std::string_view(bytes, size));
    return ports::errSecSuccess;
  }

  ports::OSStatus add(const ports::KeychainQuery& query, const base::Secret& data) {
    Failure failure;
    const GObjectPointer<SecretCollection> collection{secret_collection_for_alias_sync(
        service_.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancellable(), failure.slot())};
    if (*failure.slot() != nullptr) return failure.status();
    // Making a collection, and unlocking one, would ask the user.
    if (!collection || secret_collection_get_locked(collection.get()))
      return ports::errSecInteractionNotAllowed;
    const Value value = valueOf(data.reveal());
    const GObjectPointer<SecretItem> item{
        secret_item_create_sync(collection.get(), &kSchema, attributesOf(query).get(), query.service->c_str(),
                                value.get(), SECRET_ITEM_CREATE_NONE, cancellable(), failure.slot())};
    return item ? ports::errSecSuccess : failure.status();
  }

  ports::OSStatus remove(SecretItem* item) {
    if (secret_item_get_locked(item)) return ports::errSecInteractionNotAllowed;
    Failure failure;
    return secret_item_delete_sync(item, cancellable(), failure.slot()) ? ports::errSecSuccess
                                                                        : failure.status();
  }

 private:
  GCancellable* cancellable() const { return deadline_.cancellable(); }

  Deadline deadline_;
  GObjectPointer<SecretService> service_;
  Items items_;
};

base::PropertyList::Dictionary describe(SecretItem* item) {
  const Attributes attributes(secret_item_get_attributes(item));
  const auto attribute = [&](const char* name) -> std::string {
    const auto* value = static_cast<const char*>(g_hash_table_lookup(attributes.get(), name));
    return value == nullptr ? "" : value;
  };
  const Text label(secret_item_get_label(item));
  const auto date = [](guint64 seconds) { return base::Date::fromUnix(static_cast<double>(seconds)); };
  return {{"acct", attribute("account")},
          {"svce", attribute("service")},
          {"labl", std::string(label ? label.get() : "")},
          {"cdat", date(secret_item_get_created(item))},
          {"mdat", date(secret_item_get_modified(item))}};
}

SecretItem* itemOf(const GList* link) { return SECRET_ITEM(link->data); }

}  // namespace

ports::OSStatus SecretServiceKeychain::secItemAdd(const ports::KeychainQuery& query,
                                                  const base::Secret& data) {
  const base::MutexLock lock(adding_);
  Conversation conversation(patience_);
  if (const auto status = conversation.open(); status != ports::errSecSuccess) return status;
  const auto found = conversation.search(query, false);
  if (found == ports::errSecSuccess) return ports::errSecDuplicateItem;
  return found == ports::errSecItemNotFound ? conversation.add(query, data) : found;
}

ports::KeychainMatches SecretServiceKeychain::secItemCopyMatching(const ports::KeychainQuery& query) {
  ports::KeychainMatches matches;
  Conversation conversation(patience_);
  matches.status = conversation.open();
  if (matches.status == ports::errSecSuccess) matches.status = conversation.search(query, query.matchAll);
  if (matches.status != ports::errSecSuccess) return matches;
  if (query.returnAttributes)
    for (const GList* link = conversation.items(); link != nullptr; link = link->next)
      matches.attributes.push_back(describe(itemOf(link)));
  if (query.returnData) matches.status = conversation.loadSecret(itemOf(conversation.items()), matches.data);
  return matches;
}

ports::OSStatus SecretServiceKeychain::secItemDelete(const ports::KeychainQuery& query) {
  Conversation conversation(patience_);
  auto status = conversation.open();
  if (status == ports::errSecSuccess) status = conversation.search(query, true);
  for (const GList* link = conversation.items(); status == ports::errSecSuccess && link != nullptr;
       link = link->next)
    status = conversation.remove(itemOf(link));
  return status;
}

}  // namespace platform::freedesktop
