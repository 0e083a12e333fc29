"""A desktop of its own for quillon-settings: Xvfb, buses, keyring, mail relay, home."""
import os
import shutil
import signal
import subprocess
import tempfile
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def wait_for(check, seconds=20, step=0.1):
    end = time.time() + seconds
    while time.time() < end:
        value = check()
        if value:
            return value
        time.sleep(step)
    return check()


class Session:
    def __init__(self, settings_program, prefs_program):
        self.settings_program, self.prefs_program = settings_program, prefs_program
        self.root = tempfile.mkdtemp(prefix="quillon-settings-")
        self.processes = []
        self.home, self.mail, runtime = (os.path.join(self.root, name) for name in ("home", "mail", "runtime"))
        for folder in (self.home, self.mail, runtime):
            os.makedirs(folder, mode=0o700)
        env = {k: v for k, v in os.environ.items() if not k.startswith(("DBUS_", "XDG_", "NO_AT_BRIDGE", "GTK_"))}
        env.update(HOME=self.home, XDG_RUNTIME_DIR=runtime, LANG="C.UTF-8", GSETTINGS_BACKEND="memory",
                   QUILLON_RESOURCES=os.path.join(SOURCE, "tests", "mail"), GDK_BACKEND="x11",
                   # Xvfb has no GPU: GTK's software renderer, not GL emulated in software.
                   GSK_RENDERER="cairo")
        display = self._start_display(env)
        env["DISPLAY"] = display
        bus = subprocess.run(["dbus-daemon", "--session", "--fork", "--print-address=1", "--print-pid=1"],
                             capture_output=True, text=True, env=env, check=True).stdout.split("\n")
        env["DBUS_SESSION_BUS_ADDRESS"] = bus[0]
        self.bus_pid = int(bus[1])
        self.env = env
        os.environ.update(env)
        os.environ.pop("NO_AT_BRIDGE", None)
        # The keyring makes an unlocked login keyring with the password it reads.
        keyring = subprocess.Popen(["gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"],
                                   stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   env=env)
        keyring.stdin.write(b"test-login")
        keyring.stdin.close()
        self.processes.append(keyring)
        assert wait_for(lambda: self._has_name("org.freedesktop.secrets")), "the keyring did not start"
        self._start_relay()
        import pyatspi  # after the bus address is known
        self.pyatspi = pyatspi
        # Start the accessibility bus now: the window must find it when it starts.
        pyatspi.Registry.getDesktop(0).childCount
        assert wait_for(lambda: self._has_name("org.a11y.Bus")), "no accessibility bus"

    def _start_display(self, env):
        for number in range(90, 140):
            if os.path.exists("/tmp/.X11-unix/X%d" % number) or os.path.exists("/tmp/.X%d-lock" % number):
                continue
            xvfb = subprocess.Popen(["Xvfb", ":%d" % number, "-screen", "0", "1000x900x24", "-nolisten", "tcp"],
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
            self.processes.append(xvfb)
            if wait_for(lambda: os.path.exists("/tmp/.X11-unix/X%d" % number), 10):
                return ":%d" % number
        raise RuntimeError("no free display for Xvfb")

    def _has_name(self, name):
        out = subprocess.run(["dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus",
                              "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner", "string:" + name],
                             capture_output=True, text=True, env=self.env).stdout
        return "true" in out

    def _start_relay(self):
        cert, key = os.path.join(self.root, "relay.crt"), os.path.join(self.root, "relay.key")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj",
                        "/CN=localhost", "-keyout", key, "-out", cert], capture_output=True, check=True)
        ready = os.path.join(self.root, "relay.ready")
        self.processes.append(subprocess.Popen(
            ["/usr/bin/python3", os.path.join(SOURCE, "tests", "support", "smtp-relay.py"), "--cert", cert, "--key", key,
             "--out", self.mail, "--ready", ready, "--user", "editor", "--password", "secret", "--port", "0"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=self.env))
        assert wait_for(lambda: os.path.exists(ready) and open(ready).read().strip()), "the relay did not start"
        self.relay_port = int(open(ready).read().split()[0])

    def prefs(self, *arguments):
        return subprocess.run([self.prefs_program, *arguments], capture_output=True, text=True, env=self.env)

    def settings_path(self):
        out = self.prefs("help").stdout.split("\n")
        return out[out.index("Changes the settings of the Quillon agent in") + 1].strip()

    def secret(self, sender):
        return subprocess.run(["secret-tool", "search", "--all", "acct", sender], capture_output=True, text=True,
                              env=self.env).stdout

    def start_window(self):
        env = dict(self.env)
        if "LSAN_OPTIONS" in env:
            # Debian's GTK has no frame pointers: only the slow unwinder
            # follows a leak into the library that made it.
            env["LSAN_OPTIONS"] += ":fast_unwind_on_malloc=0"
        self.window_process = subprocess.Popen([self.settings_program], env=env, stdout=subprocess.DEVNULL,
                                               stderr=open(os.path.join(self.root, "window.log"), "a"))
        self.processes.append(self.window_process)
        self.app = wait_for(lambda: self._application("quillon-settings"), 30)
        assert self.app, "no settings window (exit status %s):\n%s" % (self.window_process.poll(), self._log())
        assert wait_for(lambda: self.find("check box", "Compressor", required=False), 20)

    # Closes the window as a user does; the sanitizer builds report at exit.
    def stop_window(self):
        self.press(self.find("push button", "Close"))
        try:
            status = self.window_process.wait(30)
        except subprocess.TimeoutExpired:
            self.window_process.kill()
            status = "hung"
        assert status == 0, "quillon-settings ended with %s:\n%s" % (status, self._log())

    def _log(self):
        with open(os.path.join(self.root, "window.log"), errors="replace") as log:
            return log.read()[-6000:]

    def _application(self, name):
        return next((app for app in self.pyatspi.Registry.getDesktop(0) if app is not None and app.name == name), None)

    # The first object of `role` whose name holds `name` (GTK joins a row's
    # title and the control's own name).
    def find(self, role, name, required=True, root=None):
        def matches(obj):
            return obj is not None and obj.getRoleName() == role and name in (obj.name or "")
        found = self.pyatspi.findDescendant(root or self.app, matches)
        if required:
            assert found is not None, "no %s named %r" % (role, name)
        return found

    def press(self, obj):
        obj.queryAction().doAction(0)

    # Clicks into the field and types, as a user does: GTK's entry rows take
    # no text through the accessibility interface.
    def type_into(self, role, name, text):
        field = self.find(role, name)
        box = field.queryComponent().getExtents(self.pyatspi.WINDOW_COORDS)
        wid = subprocess.run(["xdotool", "search", "--name", "^Quillon Settings$"], capture_output=True, text=True,
                             env=self.env).stdout.split()[-1]
        self.xdotool("mousemove", "--window", wid, str(box.x + box.width // 2), str(box.y + box.height // 2),
                     "click", "1")
        time.sleep(0.3)
        self.key("ctrl+a")
        self.xdotool("type", "--delay", "20", text)
        self.key("Return")

    def xdotool(self, *arguments):
        subprocess.run(["xdotool", *arguments], env=self.env, check=True)

    def key(self, *keys):
        subprocess.run(["xdotool", "key", "--clearmodifiers", *keys], env=self.env, check=True)

    def close(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.terminate()
                try:
                    process.wait(10)
                except subprocess.TimeoutExpired:
                    process.kill()
        os.kill(self.bus_pid, signal.SIGTERM)
        shutil.rmtree(self.root, ignore_errors=True)
