#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/keyed_archive.h"
#include "base/mutex.h"
#include "base/secret.h"
#include "store/query_result.h"

// The parameters of one backup or restore, and the root object of every manifest. The accessors are safe from
// any thread. The password is never archived: a manifest holds no secret.
class ZQStashwickOperation : public base::Codable {
 public:
  using Text = std::optional<std::string>;
  using Password = std::shared_ptr<const base::Secret>;

  static constexpr std::string_view kClassName = "ZQStashwickOperation";

  // The password is the empty text, the rest is absent.
  ZQStashwickOperation();
  // From an archive. The password is absent, not empty.
  static std::shared_ptr<ZQStashwickOperation> initWithCoder(const base::KeyedDecoder& coder);

  std::string_view className() const override { return kClassName; }
  void encodeWithCoder(base::KeyedEncoder& coder) const override;

  Password password() const { return get(password_); }
  void setPassword(Password password) { set(password_, std::move(password)); }
  Text format() const { return get(format_); }
  void setFormat(Text format) { set(format_, std::move(format)); }
  // The name of the encryption method; absent for a backup that is not encrypted.
  Text encryption() const { return get(encryption_); }
  void setEncryption(Text encryption) { set(encryption_, std::move(encryption)); }
  std::shared_ptr<ZQStashwickQueryResult> result() const { return get(result_); }
  void setResult(std::shared_ptr<ZQStashwickQueryResult> result) { set(result_, std::move(result)); }

 private:
  template <class T>
  T get(const T& field) const {
    const base::MutexLock lock(mutex_);
    return field;
  }
  template <class T>
  void set(T& field, T value) {
    const base::MutexLock lock(mutex_);
    field.swap(value);
  }

  mutable base::Mutex mutex_;
  Password password_;
  Text format_;
  Text encryption_;
  std::shared_ptr<ZQStashwickQueryResult> result_;
};
