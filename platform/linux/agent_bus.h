#pragma once

#include <QDBusAbstractAdaptor>
#include <QObject>
#include <QVariantMap>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace platform::freedesktop {

// What other programs see and ask of the agent on the session bus. All are called on the main thread.
struct AgentAnswers {
  struct Volume {
    std::string name;
    std::string identifier;
    std::uint64_t bytes = 0;
    std::string place{};  // where it is mounted; empty: it is not
  };
  struct Backup {
    std::string path;
    double date = 0;  // seconds since 1970
    std::uint64_t bytes = 0;
    bool isEncrypted = false;
  };

  std::function<std::vector<Volume>()> volumes;
  // Oldest first.
  std::function<std::vector<Backup>(const std::string& volume)> backups;
  // The reason when none was started.
  std::function<std::optional<std::string>(const std::string& volume)> backUp;
  // The volume that a backup is being made of, else empty.
  std::function<std::string()> current;
  // Whether a backup is under way, which is so from before its volume is known until it has been judged.
  std::function<bool()> isBusy;
  // Why the last backup that was tried was not made; empty when it was.
  std::function<std::string()> lastFailure;
  // The user has started the agent again.
  std::function<void()> activate;
  std::function<void()> quit;
};

// com.stashwick.Agent, at /com/stashwick/Agent: a name that one process has at a time.
class AgentBus : public QObject {
  Q_OBJECT

 public:
  static constexpr const char* kName = "com.stashwick.Agent";
  static constexpr const char* kPath = "/com/stashwick/Agent";

  enum class Place { taken, free, noBus };

  explicit AgentBus(AgentAnswers answers);
  ~AgentBus() override;

  // Takes the name. `taken`: another agent has it, and has been told that the user wants to see it.
  Place take();

  // Tells those who listen that the volumes, the backups or what is being done have changed. Any thread.
  void tellStateChanged();

  const AgentAnswers& answers() const { return answers_; }

 private:
  const AgentAnswers answers_;
  bool taken_ = false;
};

class AgentAdaptor : public QDBusAbstractAdaptor {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "com.stashwick.Agent")
  Q_PROPERTY(QString CurrentVolume READ currentVolume)
  Q_PROPERTY(bool Busy READ isBusy)
  Q_PROPERTY(QString LastFailure READ lastFailure)

 public:
  explicit AgentAdaptor(AgentBus& bus) : QDBusAbstractAdaptor(&bus), bus_(bus) {}
  QString currentVolume() const { return QString::fromStdString(bus_.answers().current()); }
  bool isBusy() const { return bus_.answers().isBusy(); }
  QString lastFailure() const { return QString::fromStdString(bus_.answers().lastFailure()); }

 public Q_SLOTS:
  // For each volume: Name (s), Identifier (s), Bytes (t), Mounted (b), Place (s, empty while not mounted).
  QList<QVariantMap> Volumes() const;
  // For each backup, the oldest first: Path (s), Date (d, seconds since 1970), Bytes (t), Encrypted (b).
  QList<QVariantMap> Backups(const QString& volume) const;
  // Empty when the backup has been started, else why it was not.
  QString BackUp(const QString& volume);
  void Activate();
  void Quit();

 Q_SIGNALS:
  void StateChanged();

 private:
  AgentBus& bus_;
};

}  // namespace platform::freedesktop
