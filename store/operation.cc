#include "store/operation.h"

ZQStashwickOperation::ZQStashwickOperation() : password_(std::make_shared<const base::Secret>("")) {}

std::shared_ptr<ZQStashwickOperation> ZQStashwickOperation::initWithCoder(const base::KeyedDecoder& coder) {
  auto operation = std::make_shared<ZQStashwickOperation>();
  operation->setPassword(nullptr);
  operation->setFormat(coder.decodeString("format"));
  operation->setEncryption(coder.decodeString("encryption"));
  const auto result = coder.decodeObject("result");
  operation->setResult(result ? ZQStashwickQueryResult::initWithCoder(*result) : nullptr);
  return operation;
}

void ZQStashwickOperation::encodeWithCoder(base::KeyedEncoder& coder) const {
  coder.encodeString("format", format());
  coder.encodeString("encryption", encryption());
  coder.encodeObject("result", result().get());
}
