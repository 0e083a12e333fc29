#!/usr/bin/python3
"""quillon-settings driven through the accessibility bus under Xvfb.
usage: test_SettingsWindow.py QUILLON_SETTINGS QUILLON_PREFS"""
import glob
import http.server
import os
import threading
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "settings-window"))
from session import Session, wait_for  # noqa: E402

PROGRAMS = sys.argv[1:3]


def read(path):
    with open(path, "rb") as f:
        return f.read()


class SettingsWindowTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.s = Session(*PROGRAMS)

    @classmethod
    def tearDownClass(cls):
        cls.s.close()

    def setting(self, key):
        return self.s.prefs("get", key).stdout.strip()

    def test_1_damaged_file_is_named_and_kept_until_a_change(self):
        s = self.s
        path = s.settings_path()
        os.makedirs(os.path.dirname(path), exist_ok=True)
        damaged = b"<plist><dict><key>watchFCPRenders</key><integer>1</inte"
        with open(path, "wb") as f:
            f.write(damaged)
        s.start_window()
        s.find("label", "The settings file cannot be read")
        s.find("label", "is not a property list")
        time.sleep(1)
        self.assertEqual(read(path), damaged)

        # A change sets the damaged file aside.
        s.press(s.find("check box", "Compressor"))
        self.assertTrue(wait_for(lambda: self.setting("watchQmaster") == "1"))
        self.assertEqual(read(path + ".damaged"), damaged)
        s.press(s.find("page tab", "When a Render Ends"))
        time.sleep(0.5)
        s.press(s.find("check box", "Play a sound"))  # on while absent
        self.assertTrue(wait_for(lambda: self.setting("notifySound") == "0"))
        s.stop_window()

    def test_2_folder_password_and_test_mail(self):
        s = self.s
        s.start_window()
        folder = os.path.join(s.home, "Renders")
        os.makedirs(folder)
        s.press(s.find("push button", "Add folder"))
        chooser = wait_for(lambda: s.find("filler", "Add a Watch Folder", required=False,
                                          root=s.pyatspi.Registry.getDesktop(0)))
        time.sleep(0.5)
        s.key("ctrl+l")
        s.xdotool("type", "--delay", "20", folder + "/")
        time.sleep(0.5)
        s.press(wait_for(lambda: s.find("push button", "Select", required=False, root=chooser)))
        self.assertTrue(wait_for(lambda: self.setting("watchFolders") == folder), self.setting("watchFolders"))
        s.find("list item", folder)

        s.press(s.find("page tab", "E-mail"))
        time.sleep(0.5)
        for field, value in [("Outgoing mail server", "127.0.0.1"), ("Port", str(s.relay_port)),
                             ("From address", "editor@example.com"), ("To addresses", "producer@example.com")]:
            s.type_into("text", field, value)
        self.assertTrue(wait_for(lambda: self.setting("emailToAddress") == "producer@example.com"))
        self.assertEqual(self.setting("emailPort"), str(s.relay_port))
        s.type_into("text", "Password", "relay-password")
        self.assertTrue(wait_for(lambda: "secret = relay-password" in s.secret("editor@example.com")),
                        s.secret("editor@example.com"))
        self.assertNotIn("relay-password", read(s.settings_path()).decode(errors="replace"))

        s.press(s.find("push button", "Send test e-mail"))
        result = wait_for(lambda: s.find("label", "Sent a test e-mail", required=False), 60)
        self.assertIn("producer@example.com", result.name)
        envelopes = glob.glob(os.path.join(s.mail, "*.envelope"))
        self.assertEqual(len(envelopes), 1)
        self.assertIn("TO producer@example.com", read(envelopes[0]).decode())
        s.stop_window()

    def test_3_push_target_and_test_push(self):
        s = self.s
        received = []

        class Hook(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                received.append((self.path, self.rfile.read(int(self.headers["Content-Length"] or 0))))
                self.send_response(200)
                self.end_headers()

            def log_message(self, *arguments):
                pass

        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Hook)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        try:
            s.start_window()
            s.press(s.find("page tab", "Push"))
            time.sleep(0.5)
            s.type_into("text", "Add push target URL", "json://127.0.0.1:%d/hook-secret" % server.server_port)
            s.find("list item", "json://127.0.0.1:%d/****" % server.server_port)
            self.assertNotIn("hook-secret", read(s.settings_path()).decode(errors="replace"))
            s.press(s.find("push button", "Send test push"))
            self.assertTrue(wait_for(lambda: s.find("label", ": sent", required=False), 60))
            self.assertEqual(received[0][0], "/hook-secret")
            s.stop_window()
        finally:
            server.shutdown()


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"], warnings="ignore")
