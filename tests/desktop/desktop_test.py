"""The built agent on a headless desktop, from the plugged stick to the image on the disk.

usage: unshare --map-root-user --mount desktop_test.py BUILD_FOLDER CLASS[.TEST] [-- PREFIX...]

One class at a time: what stands for a screen reader can only ever look at one desktop. The words of the prefix come
before the agent's in the command line that starts it.
"""
import os
import signal
import subprocess
import sys
import unittest

import headless_desktop
from headless_desktop import HeadlessDesktop, wait_for
from running_agent import NAME, PATH, Agent, Programs, Window

import pyatspi

QUESTION = ("This allows you to restore the contents of this volume at any time in the future. The backup will take up "
            "approximately {} of space on your hard drive.")
SUPPRESSION = "Backup this volume automatically in the future"
MENU_OF_A_FRESH_USER = ["(Last Backup: Never)", "-", "Backup ...", "  (No Devices Connected)", "Automatic Backups",
                            "-", "Quit Stashwick"]
build_folder = None
prefix = []


class DesktopTest(unittest.TestCase):
    has_panel = True

    @classmethod
    def setUpClass(cls):
        cls.desktop = cls.enterClassContext(HeadlessDesktop(panel=cls.has_panel))
        cls.programs = Programs(build_folder, cls.desktop.folder, prefix)

    def setUp(self):
        self.desktop.change_user()
        self.addCleanup(self.show_logs_of_a_failure)
        self.stick = self.desktop.stick("STICK")
        self.stick.write("letter.txt", b"Dear reader,\n" * 100)

    def show_logs_of_a_failure(self):
        if any(problem for _, problem in self._outcome.result.failures + self._outcome.result.errors):
            self.desktop.show_logs()

    def start_agent(self):
        agent = Agent(self.desktop, self.programs)
        self.addCleanup(agent.kill)
        return agent

    def ctl(self, *arguments, text=""):
        return subprocess.run([self.programs.ctl, *arguments], env=self.desktop.environment, check=True, input=text,
                              text=True, capture_output=True).stdout

    def plug_and_answer(self, answer, stick=None):
        (stick or self.stick).plug()
        Window.wait().close(answer)

    def pull(self, agent, stick=None):
        """And waits until the agent has noticed."""
        (stick or self.stick).pull()
        wait_for("an empty list of volumes", lambda: agent.ask("Volumes") == [])

    def check_image(self, image, volume="STICK-Backup"):
        subprocess.run([self.programs.hdiutil, "verify", image], check=True, capture_output=True)
        listing = subprocess.run(["7zz", "l", image], check=True, capture_output=True, text=True).stdout
        self.assertIn("letter.txt", listing)
        self.assertIn(volume, listing)
        self.assertTrue(image.with_suffix(".manifest").is_file())


class Question(DesktopTest):
    def test_is_asked_about_a_plugged_stick_in_these_words(self):
        agent = self.start_agent()
        self.stick.write("music", bytes(5_000_000))
        self.stick.plug()
        window = Window.wait()
        self.assertEqual(window.names("label"), ['Backup "STICK"?', QUESTION.format("3.82 MB")])
        self.assertEqual(sorted(window.names("push button")), ["Backup", "Ignore Volume", "Later"])
        self.assertEqual(window.names("check box"), [SUPPRESSION])
        self.assertFalse(window.has(pyatspi.STATE_CHECKED, "check box", SUPPRESSION))
        self.assertTrue(window.has(pyatspi.STATE_IS_DEFAULT, "push button", "Backup"))
        window.press("Later")
        self.assertEqual(agent.end(), 0)

    def test_answered_with_return_makes_a_sound_image_while_the_menu_tells_of_it(self):
        agent = self.start_agent()
        self.assertEqual(agent.menu(), MENU_OF_A_FRESH_USER)
        idle_icon = agent.item_property("IconName")
        with self.programs.held_back():
            self.stick.plug()
            Window.wait().type_key(self.desktop, "Return")
            agent.wait_for_menu('(Backing up "STICK" ...)')
            wait_for("another icon", lambda: agent.item_property("IconName") != idle_icon)
            self.assertEqual(agent.menu()[1:5], ["-", "Backup ...", '  Backup "STICK" now ...', "  (Last Backup: Never)"])
            self.assertEqual(agent.current_volume(), "STICK")
            self.assertNotEqual(agent.ask("BackUp", "(s)", "STICK"), "")
        image, = agent.wait_until_idle(1)
        self.check_image(image)
        self.assertRegex(agent.menu()[0], r"^\(Last Backup: Today at \d+:\d\d\s[AP]M\)$")
        self.assertRegex(agent.menu()[4], r"^  \(Last Backup: Today at \d+:\d\d\s[AP]M\)$")
        wait_for("the usual icon", lambda: agent.item_property("IconName") == idle_icon)
        self.assertEqual(agent.leavings("STICK"), [])
        self.assertEqual(agent.end(), 0)

    def test_reads_from_right_to_left_in_arabic(self):
        self.desktop.environment["LANG"] = "ar_EG.UTF-8"
        agent = self.start_agent()
        self.stick.plug()
        window = Window.wait()
        self.assertLess(window.left_of("push button", "نسخ احتياطي"), window.left_of("push button", "لاحقًا"))
        window.press("لاحقًا")
        self.assertEqual(agent.end(), 0)

    def test_answered_with_later_comes_again_and_with_ignore_volume_never(self):
        agent = self.start_agent()
        self.plug_and_answer("Later")
        self.pull(agent)
        self.plug_and_answer("Ignore Volume")
        self.pull(agent)
        self.stick.plug()
        agent.wait_for_menu('  Backup "STICK" now ...')
        # What is asked about the second stick would stand behind a question about the first.
        other = self.desktop.stick("OTHER", "CAFE-0002", "sdc")
        other.plug()
        self.assertEqual(Window.wait().names("label")[0], 'Backup "OTHER"?')
        Window.wait().close("Later")
        agent.choose('Backup "STICK" now ...')
        self.assertEqual(Window.wait().names("label")[0], 'Backup "STICK"?')
        window = Window.wait()
        window.type_key(self.desktop, "Escape")
        window.wait_until_closed()
        self.assertEqual(agent.images("STICK"), [])
        self.assertEqual(agent.end(), 0)

    def test_is_not_asked_again_once_the_box_was_ticked(self):
        agent = self.start_agent()
        self.stick.plug()
        window = Window.wait()
        window.press(SUPPRESSION, "check box")
        wait_for("the tick", lambda: window.has(pyatspi.STATE_CHECKED, "check box", SUPPRESSION))
        window.press("Backup")
        first, = agent.wait_until_idle(1)
        self.pull(agent)
        # An image is named by the second of its beginning.
        wait_for("another second", lambda: self.desktop.seconds_since(first.with_suffix(".manifest")) > 2)
        self.stick.plug()
        for image in agent.wait_until_idle(2):
            self.check_image(image)
        agent.choose('Backup "STICK" now ...')
        self.assertTrue(Window.wait().has(pyatspi.STATE_CHECKED, "check box", SUPPRESSION))
        Window.wait().press("Later")
        self.assertEqual(agent.end(), 0)


class Menu(DesktopTest):
    def test_backs_up_quits_and_keeps_the_switch(self):
        agent = self.start_agent()
        self.plug_and_answer("Later")
        agent.choose("Automatic Backups")
        agent.choose('Backup "STICK" now ...')
        Window.wait().press("Backup")
        self.check_image(*agent.wait_until_idle(1))
        agent.wait_for_menu("[x] Automatic Backups")
        agent.choose("Quit Stashwick")
        self.assertEqual(agent.exit_status(), 0)
        self.assertIn("[x] Automatic Backups", self.start_agent().menu())

    def test_opens_as_a_window_when_the_agent_is_started_again(self):
        agent = self.start_agent()
        self.assertEqual(agent.start_again(), 0)
        window = Window.wait("dialog")
        self.assertEqual(window.names("label"), ["Last Backup: Never"])
        self.assertEqual(window.names("push button"), ["Backup ...", "Automatic Backups", "Quit Stashwick"])
        window.press("Quit Stashwick")
        self.assertEqual(agent.exit_status(), 0)

    def test_appears_when_the_panel_comes_after_the_agent(self):
        self.desktop.end_panel()
        agent = self.start_agent()
        self.assertEqual(agent.ask("Volumes"), [])
        self.desktop.start_panel()
        self.assertEqual(agent.menu(), MENU_OF_A_FRESH_USER)
        self.assertEqual(agent.end(), 0)


class Ending(DesktopTest):
    def test_during_a_backup_leaves_no_half_image(self):
        agent = self.start_agent()
        self.stick.write("noise", os.urandom(300_000_000))
        self.plug_and_answer("Backup")
        wait_for("a beginning", agent.image_tools)
        agent.choose("Quit Stashwick")
        self.assertEqual(agent.exit_status(), 0)
        self.assertEqual(agent.image_tools(), [])
        self.assertEqual([agent.images("STICK"), agent.leavings("STICK")], [[], []])

    def test_while_a_question_is_open_answers_nothing(self):
        agent = self.start_agent()
        self.stick.plug()
        Window.wait()
        self.assertEqual(agent.end(), 0)
        self.assertEqual(agent.images("STICK"), [])


class OtherPrograms(DesktopTest):
    def test_list_and_start_backups_and_end_the_agent(self):
        agent = self.start_agent()
        self.plug_and_answer("Later")
        volume, = agent.ask("Volumes")
        self.assertEqual([volume["Name"], volume["Mounted"], volume["Bytes"]], ["STICK", True, self.stick.BYTES])
        self.assertEqual(agent.ask("Backups", "(s)", "STICK"), [])
        self.assertIn("NOWHERE", agent.ask("BackUp", "(s)", "NOWHERE"))
        changes = len(agent.state_changes)
        self.assertEqual(agent.ask("BackUp", "(s)", "STICK"), "")
        image, = agent.wait_until_idle(1)
        wait_for("word of the beginning and of the end", lambda: len(agent.state_changes) >= changes + 2)
        backup, = agent.ask("Backups", "(s)", "STICK")
        self.assertEqual([backup["Path"], backup["Bytes"], backup["Encrypted"]],
                         [str(image), image.stat().st_size, False])
        description = self.desktop.session.call(NAME, PATH, "org.freedesktop.DBus.Introspectable", "Introspect")
        for member in ["Volumes", "Backups", "BackUp", "Activate", "Quit", "StateChanged", "CurrentVolume"]:
            self.assertIn(f'name="{member}"', description)
        agent.ask("Quit")
        self.assertEqual(agent.exit_status(), 0)

    def test_keep_the_password_of_an_encrypted_backup(self):
        self.desktop.start_keyring()
        self.ctl("password", "set", "--password-stdin", text="open sesame\n")
        self.ctl("settings", "ZQStashwickBackupEncryption", "AES-256")
        agent = self.start_agent()
        self.plug_and_answer("Backup")
        image, = agent.wait_until_idle(1)
        verify = [self.programs.hdiutil, "verify", "-stdinpass", image]
        self.assertEqual(subprocess.run(verify, input=b"open sesame", capture_output=True).returncode, 0)
        self.assertNotEqual(subprocess.run(verify, input=b"open barley", capture_output=True).returncode, 0)
        self.assertEqual(agent.ask("Backups", "(s)", "STICK")[0]["Encrypted"], True)
        self.assertEqual(agent.end(), 0)


class Failure(DesktopTest):
    def test_of_a_backup_is_told_of_in_a_panel_when_the_next_one_starts(self):
        full = self.desktop.mount("full", 4)
        self.desktop.environment["XDG_DATA_HOME"] = str(full)
        agent = self.start_agent()
        self.stick.write("noise", os.urandom(9_000_000))
        self.plug_and_answer("Backup")
        wait_for("the failure", lambda: "create failed" in self.desktop.log_of("stashwick-agent"))
        wait_for("an idle agent", agent.is_idle)
        agent.choose('Backup "STICK" now ...')
        Window.wait().press("Backup")
        wait_for("the panel", lambda: Window.wait().names("push button") == ["OK"])
        title, message = Window.wait().names("label")
        self.assertEqual(title, "Backup Failed")
        self.assertRegex(message, r'^"STICK" could not be backed up because of the following reason:\n\n'
                                  r"hdiutil: create failed - .*: not enough free space: .*\n\n"
                                  r"ZQStashwickErrorDomain \(Error -1\)$")
        # The engine judges the text at each change of its queue, and may tell of it more than once.
        while wait_for("a panel or the end", lambda: Window.find() or agent.is_idle()) is not True:
            Window.wait().close("OK")
        self.assertEqual(agent.images("STICK"), [])
        self.assertEqual(agent.end(), 0)


class Sleep(DesktopTest):
    """Of the machine."""
    def setUp(self):
        super().setUp()
        self.logind = self.desktop.start_logind()
        self.addCleanup(self.desktop.end, self.logind)

    def test_waits_while_a_backup_is_made(self):
        agent = self.start_agent()
        with self.programs.held_back():
            self.plug_and_answer("Backup")
            wait_for("two inhibitors", lambda: len(self.desktop.inhibitors()) == 2)
            why = 'Backing up "STICK" ...'
            self.assertEqual(self.desktop.inhibitors(), [("sleep", "Stashwick", why, "block"),
                                                         ("shutdown", "Stashwick", why, "delay")])
        wait_for("no inhibitor", lambda: self.desktop.inhibitors() == [])
        agent.wait_until_idle(1)
        self.assertEqual(agent.end(), 0)

    def test_does_not_wait_for_an_answer_about_another_stick(self):
        agent = self.start_agent()
        with self.programs.held_back():
            self.plug_and_answer("Backup")
            wait_for("two inhibitors", lambda: len(self.desktop.inhibitors()) == 2)
            self.desktop.stick("OTHER", "CAFE-0002", "sdc").plug()
            Window.wait()
        wait_for("no inhibitor", lambda: self.desktop.inhibitors() == [])
        Window.wait().press("Later")
        self.assertEqual(agent.end(), 0)

    def test_does_not_wait_after_a_failure(self):
        self.desktop.environment["XDG_DATA_HOME"] = str(self.desktop.mount("full", 4))
        agent = self.start_agent()
        self.stick.write("noise", os.urandom(9_000_000))
        with self.programs.held_back():
            self.plug_and_answer("Backup")
            wait_for("two inhibitors", lambda: len(self.desktop.inhibitors()) == 2)
        wait_for("no inhibitor", lambda: self.desktop.inhibitors() == [])
        self.assertIn("create failed", self.desktop.log_of("stashwick-agent"))
        self.assertEqual(agent.end(), 0)

    def test_that_nobody_answers_for_holds_nothing_up(self):
        agent = self.start_agent()
        self.logind.send_signal(signal.SIGSTOP)
        self.plug_and_answer("Backup")
        self.check_image(*agent.wait_until_idle(1))
        # What it grants too late is given back.
        self.logind.send_signal(signal.SIGCONT)
        wait_for("no inhibitor", lambda: self.desktop.inhibitors() == [])
        self.assertEqual(agent.end(), 0)


class WithoutPanel(DesktopTest):
    has_panel = False

    def test_a_notification_says_once_how_to_open_the_menu(self):
        self.desktop.start_notifications()
        agent = self.start_agent()
        notes = wait_for("a notification", self.desktop.notifications)
        self.assertEqual(notes, [["Stashwick is running", "This desktop shows no status icons. Start Stashwick again to "
                                                          "open its menu."]])
        self.assertEqual(agent.start_again(), 0)
        self.assertEqual(Window.wait("dialog").names("push button"), ["Backup ...", "Automatic Backups", "Quit Stashwick"])
        self.plug_and_answer("Backup")
        self.check_image(*agent.wait_until_idle(1))
        self.assertEqual(len(self.desktop.notifications()), 1)
        self.assertEqual(agent.end(), 0)


class MuteBus(DesktopTest):
    has_panel = False

    def test_of_the_session_does_not_keep_the_agent_from_asking(self):
        self.desktop.environment["DBUS_SESSION_BUS_ADDRESS"] = self.desktop.make_mute_socket()
        agent = self.programs.start_agent(self.desktop)
        self.stick.plug()
        wait_for("the question", lambda: b'Stashwick' in subprocess.run(
            ["xdotool", "search", "--onlyvisible", "--name", "^Stashwick$", "getwindowname"], env=self.desktop.environment,
            capture_output=True).stdout)
        agent.terminate()
        self.assertEqual(agent.wait(headless_desktop.LIMIT), 0)
        self.assertIn("session bus does not answer", self.desktop.log_of("stashwick-agent"))


if __name__ == "__main__":
    if "--" in sys.argv:
        end = sys.argv.index("--")
        prefix = sys.argv[end + 1:]
        del sys.argv[end:]
    build_folder = sys.argv.pop(1)
    unittest.main(verbosity=2)
