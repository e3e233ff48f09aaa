#include <QDBusMetaType>
#include <QFile>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QXmlStreamReader>
#include <gtest/gtest.h>
#include <set>
#include <string>

#include "platform/linux/agent_bus.h"

using platform::freedesktop::AgentAdaptor;
using platform::freedesktop::AgentAnswers;
using platform::freedesktop::AgentBus;

namespace {

// Members of an interface, one line each: "method BackUp(volume s) s".
using Members = std::set<std::string>;

// Empty for nothing.
std::string signatureOf(QMetaType type) {
  const char* signature = QDBusMetaType::typeToSignature(type);
  return signature != nullptr ? signature : "";
}

std::string lineOf(const QMetaMethod& method) {
  std::string line = method.methodType() == QMetaMethod::Signal ? "signal " : "method ";
  line += method.name().toStdString() + "(";
  for (int i = 0; i < method.parameterCount(); ++i)
    line += method.parameterNames()[i].toStdString() + " " + signatureOf(method.parameterMetaType(i));
  return line + ") " + signatureOf(method.returnMetaType());
}

Members offered() {
  const QMetaObject& object = AgentAdaptor::staticMetaObject;
  Members members;
  for (int i = object.methodOffset(); i < object.methodCount(); ++i) members.insert(lineOf(object.method(i)));
  for (int i = object.propertyOffset(); i < object.propertyCount(); ++i)
    members.insert("property " + std::string(object.property(i).name()) + " " +
                   signatureOf(object.property(i).metaType()));
  return members;
}

std::string attribute(const QXmlStreamReader& xml, const char* name) {
  return xml.attributes().value(name).toString().toStdString();
}

std::string describedMember(QXmlStreamReader& xml) {
  std::string line = xml.name().toString().toStdString() + " " + attribute(xml, "name");
  if (xml.name() == u"property") {
    line += " " + attribute(xml, "type");
    xml.skipCurrentElement();
    return line;
  }
  std::string in, out;
  while (xml.readNextStartElement()) {
    if (attribute(xml, "direction") == "out")
      out += attribute(xml, "type");
    else
      in += attribute(xml, "name") + " " + attribute(xml, "type");
    xml.skipCurrentElement();
  }
  return line + "(" + in + ") " + out;
}

Members described(QXmlStreamReader& xml) {
  Members members;
  xml.readNextStartElement();
  xml.readNextStartElement();
  EXPECT_EQ(attribute(xml, "name"), AgentBus::kName);
  while (xml.readNextStartElement()) members.insert(describedMember(xml));
  return members;
}

TEST(BusDescription, tellsWhatTheAgentOffers) {
  const AgentBus bus{AgentAnswers{}};
  QFile file(PACKAGING_FOLDER "/com.stashwick.Agent.xml");
  ASSERT_TRUE(file.open(QIODevice::ReadOnly));
  QXmlStreamReader xml(&file);
  EXPECT_EQ(described(xml), offered());
  EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();
}

}  // namespace
