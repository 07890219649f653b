"""What the browser tests of the disk space page stand on: a private bus, the
real vantord and example services on it, the web console's web server with a
bridge pointed at that bus and serving the page from the source tree, and a
headless browser driven over WebDriver.

Everything is started in a fresh temporary directory and stopped, newest
first, when the harness is closed.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.request

SKIP = 77  # the exit status CTest reads as "skipped"

BUS_NAME = "com.tessaly.vantor"
ALL_ENTITLEMENTS = [
    "CLIENT_ENTITLEMENT", "SERVICE_ENTITLEMENT", "PURGEABLE_ENTITLEMENT",
    "ITEMIZED_PURGEABLE_ENTITLEMENT", "PURGE_ENTITLEMENT", "CANCEL_PURGE_ENTITLEMENT",
    "PERIODIC_ENTITLEMENT", "SERVICE_REQUEST_ENTITLEMENT", "NOTIFICATION_ENTITLEMENT",
]
COCKPIT_WS = "/usr/lib/cockpit/cockpit-ws"
CHROMEDRIVER = "/usr/bin/chromedriver"
CHROMIUM = "/usr/bin/chromium"


class Unavailable(Exception):
    """The browser or the web server is not installed: the test is skipped."""


def wait_until(predicate, timeout, what):
    """Polls `predicate` until it holds; raises with `what` at the deadline."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise TimeoutError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def plist_strings(values):
    return "".join(f"<string>{v}</string>" for v in values)


class Harness:
    def __init__(self, build_dir, source_dir, artifacts):
        for path in (COCKPIT_WS, CHROMEDRIVER, CHROMIUM):
            if not os.access(path, os.X_OK):
                raise Unavailable(f"{path} is not installed")
        self.build_dir = build_dir
        self.source_dir = source_dir
        self.artifacts = artifacts
        os.makedirs(artifacts, exist_ok=True)
        self.dir = tempfile.mkdtemp(prefix="vantor-browser-")
        self.root = os.path.join(self.dir, "root")
        self.processes = []  # (name, Popen), stopped newest first
        self.services = {}  # name -> stdout file of the service
        self.driver = None
        self.bus = None
        self.url = None

    # ---- processes -------------------------------------------------------

    def spawn(self, name, argv, env=None, stdout=None, pass_fds=()):
        log = open(os.path.join(self.dir, name + ".log"), "wb")
        process = subprocess.Popen(argv, env={**os.environ, **(env or {})},
                                   stdout=stdout if stdout is not None else log, stderr=log,
                                   stdin=subprocess.DEVNULL, start_new_session=True, pass_fds=pass_fds)
        self.processes.append((name, process))
        return process

    def log(self, name):
        try:
            with open(os.path.join(self.dir, name + ".log"), errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def close(self):
        if self.driver is not None:
            try:
                self.driver.quit()
            except Exception:  # the browser may be gone already
                pass
        for _, process in reversed(self.processes):
            if process.poll() is None:
                process.send_signal(signal.SIGTERM)
                try:
                    process.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait()
        shutil.rmtree(self.dir, ignore_errors=True)

    # ---- bus, root, daemon, services --------------------------------------

    def start_bus(self):
        read, write = os.pipe()
        conf = os.path.join(self.source_dir, "tests/fixtures/bus.conf")
        self.spawn("dbus-daemon", ["dbus-daemon", f"--config-file={conf}", "--nofork",
                                   f"--print-address={write}"], pass_fds=(write,))
        os.close(write)
        with os.fdopen(read) as f:
            self.bus = f.readline().strip()
        if not self.bus:
            raise RuntimeError("the private bus printed no address:\n" + self.log("dbus-daemon"))

    def write_policy(self, users, entitlements=ALL_ENTITLEMENTS):
        policy = os.path.join(self.root, "etc/vantor/entitlements.d")
        os.makedirs(policy, exist_ok=True)
        os.makedirs(os.path.join(self.root, "System/Library/Vantor"), exist_ok=True)
        with open(os.path.join(policy, "test.plist"), "w") as f:
            f.write('<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0"><dict>'
                    f"<key>Users</key><array>{plist_strings(users)}</array>"
                    "<key>com.tessaly.private.Vantor</key>"
                    f"<array>{plist_strings(entitlements)}</array></dict></plist>\n")

    def start_daemon(self, env=None, users=None):
        self.write_policy(users if users is not None else [str(os.getuid())])
        state = os.path.join(self.dir, "state")
        os.makedirs(state, exist_ok=True)
        environment = {"DBUS_SYSTEM_BUS_ADDRESS": self.bus, "ZEPHON_SIMULATOR_ROOT": self.root,
                       "STATE_DIRECTORY": state, "VANTOR_LOG_LEVEL": "5"}
        environment.update(env or {})
        environment.pop("NOTIFY_SOCKET", None)
        daemon = self.spawn("vantord", [os.path.join(self.build_dir, "src/vantord")], env=environment)
        wait_until(lambda: self.name_has_owner(BUS_NAME) or daemon.poll() is not None, 20,
                   "vantord to take its bus name")
        if daemon.poll() is not None:
            raise RuntimeError("vantord exited:\n" + self.log("vantord"))

    def reload_policy(self, users, entitlements):
        """Rewrites the policy and has the daemon read it again."""
        self.write_policy(users, entitlements)
        for name, process in self.processes:
            if name == "vantord":
                process.send_signal(signal.SIGHUP)

    def name_has_owner(self, name):
        out = subprocess.run(["dbus-send", f"--bus={self.bus}", "--print-reply=literal",
                              "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus.NameHasOwner", f"string:{name}"],
                             capture_output=True, text=True)
        return "true" in out.stdout

    def start_service(self, name, *args, expect=1):
        """Starts an example service that checks in; waits for its check-ins."""
        out_path = os.path.join(self.dir, name + ".out")
        out = open(out_path, "wb")
        self.services[name] = out_path
        self.spawn(name, [os.path.join(self.build_dir, "tests/fake_service/vantor-fake-service"),
                          "--id", name, "--checkin", *args],
                   env={"DBUS_SYSTEM_BUS_ADDRESS": self.bus}, stdout=out)
        wait_until(lambda: self.service_lines(name, "checked-in") >= expect or
                   self.service_lines(name, "checkin-failed"), 30, f"{name} to check in")
        if self.service_lines(name, "checkin-failed"):
            raise RuntimeError(f"{name} could not check in:\n" + self.log(name))

    def service_lines(self, name, prefix):
        with open(self.services[name], errors="replace") as f:
            return sum(1 for line in f if line.startswith(prefix))

    def vantorctl(self, *args, check=True):
        result = subprocess.run([os.path.join(self.build_dir, "tools/vantorctl"), "--bus", self.bus,
                                 *args], capture_output=True, text=True, timeout=150,
                                env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.bus})
        if check and result.returncode not in (0, 6):  # 6: a purge's shortfall
            raise RuntimeError(f"vantorctl {' '.join(args)}: {result.returncode}\n{result.stderr}")
        return result

    def vantorctl_json(self, *args):
        return json.loads(self.vantorctl("--json", *args).stdout)

    # ---- web server and browser --------------------------------------------

    def start_cockpit(self):
        # The console finds packages in the cockpit/ folder of each data
        # directory; the page comes from the source tree, base1 from the system.
        data = os.path.join(self.dir, "data")
        shutil.copytree(os.path.join(self.source_dir, "cockpit"), os.path.join(data, "cockpit/vantor"),
                        ignore=shutil.ignore_patterns("CMakeLists.txt", "examples"))
        port = free_port()
        self.spawn("cockpit-ws", [COCKPIT_WS, "--no-tls", "--local-session=cockpit-bridge",
                                  "--port", str(port), "--address", "127.0.0.1"],
                   env={"DBUS_SYSTEM_BUS_ADDRESS": self.bus, "LANG": "C.UTF-8",
                        "XDG_DATA_DIRS": f"{data}:/usr/share", "XDG_DATA_HOME": os.path.join(self.dir, "home")})
        self.url = f"http://127.0.0.1:{port}/cockpit/@localhost/vantor/index.html"

        def answers():
            try:
                with urllib.request.urlopen(self.url, timeout=2) as reply:
                    return reply.status == 200
            except OSError:
                return False
        wait_until(answers, 20, "the web server to serve the page")

    def start_browser(self, width=1280, height=1000):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                         f"--window-size={width},{height}", "--force-prefers-reduced-motion"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        service = Service(executable_path=CHROMEDRIVER, log_path=os.path.join(self.dir, "chromedriver.log"))
        try:
            self.driver = webdriver.Chrome(service=service, options=options)
        except Exception as e:
            if "cannot find Chrome binary" in str(e) or "not found" in str(e):
                raise Unavailable(str(e))
            raise
        self.driver.set_page_load_timeout(30)
        return self.driver

    def screenshot(self, name):
        path = os.path.join(self.artifacts, name + ".png")
        self.driver.save_screenshot(path)
        return path

    def full_screenshot(self, name):
        """A screenshot of the whole page, below the window's edge too."""
        import base64
        width, height = self.driver.execute_script(
            "return [Math.max(document.documentElement.scrollWidth, window.innerWidth),"
            " document.documentElement.scrollHeight]")
        shot = self.driver.execute_cdp_cmd("Page.captureScreenshot", {
            "format": "png", "captureBeyondViewport": True,
            "clip": {"x": 0, "y": 0, "width": width, "height": height, "scale": 1}})
        path = os.path.join(self.artifacts, name + ".png")
        with open(path, "wb") as f:
            f.write(base64.b64decode(shot["data"]))
        return path

    def console_errors(self):
        try:
            return [entry for entry in self.driver.get_log("browser") if entry.get("level") == "SEVERE"]
        except Exception:
            return []
