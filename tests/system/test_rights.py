#!/usr/bin/env python3
"""A start as root that goes on as somebody else, and the sandbox: what they take away, and that nothing else is missing."""

import contextlib
import os
import pwd
import re
import subprocess
from pathlib import Path

from addresses import endpoint
from processes import reserve_port
from sandbox import why_no_sandbox
from shifted_clock import ShiftedClock
from trabex_system import (DOMAIN, LOOPBACK, Authority, Options, Scenario, bound, keeps_freed_memory, main, run_trabex,
                           trusting, wait_until)

USER = "nobody"
OUTSIDE = "Outside of the folders that Sandbox allows"


def status_of(pid):
    """The lines of /proc/PID/status."""
    text = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return {name: value.split() for name, value in (line.split(":", 1) for line in text.splitlines())}


def low_port():
    """A port that only root may listen on."""
    first_free = int(Path("/proc/sys/net/ipv4/ip_unprivileged_port_start").read_text(encoding="ascii"))
    return next(filter(reserve_port, range(min(first_free, 1024) - 1, 400, -1)), None)


class Rights(Scenario):
    def setUp(self):
        super().setUp()
        self.server = self.sample_server()

    def send(self, proxy, recipient=f"r@{DOMAIN}", sender=f"s@{DOMAIN}"):
        """The code of the last reply to a client that gets as far as the recipient, if it does."""
        client = self.connect(proxy.address)
        client.read_reply()
        for line in ("EHLO c.example", f"MAIL FROM:<{sender}>", f"RCPT TO:<{recipient}>"):
            reply = client.command(line)
            if reply[:3] != "250":
                break
        client.close()
        return reply[:3]

    def ask(self, proxy, *request):
        return run_trabex(*request, "/P", proxy.port)

    def reload(self, proxy, **changes):
        proxy.write_ini(**changes)
        proxy.ini.chmod(0o644)
        return self.told(proxy)

    def told(self, proxy):
        """Asks for a reload: its status, and what is wrong."""
        status, said, _ = self.ask(proxy, "/RELOAD")
        return status, said

    def serial(self, proxy, authority):
        context = trusting(authority.file)
        context.check_hostname = False
        client = self.connect(proxy.address)
        client.read_reply()
        client.command("EHLO c.example")
        self.assertEqual(client.command("STARTTLS")[:3], "220")
        client.start_tls(context)
        return client.socket.getpeercert()['serialNumber']

    def saves(self, proxy):
        status, said, _ = self.ask(proxy, "/STATUS")
        self.assertEqual(status, 0)
        return int(re.search(r'^trabex_greylisting_saves_total\{result="ok"\} (\d+)$', said, re.MULTILINE)[1])


class Sandbox(Rights):
    def start(self, sections=None, settings=None):
        """With Sandbox=2, which has to be possible unless the program itself says why it is not."""
        sections = {**(sections or {}), "Service": {"Sandbox": 2}}
        if why_not := why_no_sandbox():
            self.skipTest(why_not)
        return self.trabex(self.server.port, settings, sections=sections)

    def test_what_it_is(self):
        proxy = self.start()
        self.assertEqual(self.send(proxy), "250")
        proxy.wait_for_log("Sandbox in force.")
        status = status_of(proxy.process.pid)
        self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), (["1"], ["2"]))

    def test_none_and_the_default_are_silent(self):
        if Options.sandbox is not None:
            self.skipTest("--sandbox sets another default")
        ours = status_of("self")["Seccomp"]
        none = self.trabex(self.server.port, sections={"Service": {"Sandbox": 0}}, json_log=False)
        default = self.trabex(self.server.port)
        for proxy in (none, default):
            self.assertEqual(self.send(proxy), "250")
        self.assertEqual(status_of(none.process.pid)["Seccomp"], ours)
        if ours == ["0"] and not keeps_freed_memory():
            self.assertEqual(status_of(default.process.pid)["Seccomp"], ["2"])
        for proxy in (none, default):
            self.assertEqual(proxy.end(), 0)
            self.assertNotIn("andbox", proxy.log())
            self.assertEqual(proxy.process.stderr(), "")

    def test_reload(self):
        proxy = self.start()
        lists = proxy.folder / "lists"
        lists.mkdir()
        (lists / "senders").write_text(f"x@{DOMAIN}\n")
        # A new path below the folder of the file; then a list that another one is renamed over.
        proxy.sections["ListFiles"] = {"Common.SendersBlackList": lists / "senders"}
        self.assertEqual(self.reload(proxy)[0], 0)
        self.assertEqual(self.send(proxy), "250")
        (lists / "new").write_text(f"s@{DOMAIN}\n")
        (lists / "new").replace(lists / "senders")
        self.assertEqual(self.reload(proxy)[0], 0)
        self.assertEqual(self.send(proxy)[0], "5")

        # Outside: the operator is told, with the path, and what was in force stays.
        outside = self.place.new_folder("outside")
        (outside / "senders").write_text("x@elsewhere.example\n")
        proxy.sections["ListFiles"] = {"Common.SendersBlackList": outside / "senders"}
        status, errors = self.reload(proxy)
        self.assertEqual(status, 1)
        self.assertIn(f"{outside}/senders", errors)
        self.assertIn(OUTSIDE, errors)
        proxy.sections["ListFiles"] = {"Common.SendersBlackList": lists / "senders"}
        certificate = Authority(self.place).issue(["localhost"])
        proxy.sections["TLS"] = {"Certificate": f"{certificate.chain} {certificate.key}"}
        status, errors = self.reload(proxy)
        self.assertEqual(status, 1)
        self.assertIn(f'Unable to load certificate "{certificate.chain}". {OUTSIDE}.', errors)
        del proxy.sections["TLS"]
        proxy.sections["GreyListing"] = {"Enabled": 1, "Database": outside / "grey.gldb"}
        status, errors = self.reload(proxy)
        self.assertEqual(status, 1)
        self.assertIn(f'The folder of the database, "{outside}", is outside of those that Sandbox allows; it can be used '
                      "from the next start on.", errors)
        proxy.wait_for_log("Configuration not reloaded; the one in force stays.", times=3)
        self.assertEqual(self.send(proxy)[0], "5")

        # Another server, another address, and the sandbox itself.
        del proxy.sections["GreyListing"]
        proxy.sections["ListFiles"] = {}
        proxy.sections["Service"]["Sandbox"] = 0
        server = self.sample_server()
        self.assertEqual(self.reload(proxy, ServerPort=server.port, BindIP=f"{LOOPBACK}, 127.0.0.2")[0], 0)
        proxy.wait_for_log("Sandbox takes effect at the next start.")
        self.assertEqual(self.send(proxy), "250")

    def test_records_are_saved_by_a_copy(self):
        # A folder that the program has to make itself.
        database = self.place.new_folder("records") / "new" / "grey.gldb"
        proxy = self.start({"GreyListing": {"Enabled": 1, "Database": database}},
                           {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN})
        for number in range(3):
            self.assertEqual(self.send(proxy, f"r{number}@{DOMAIN}", "s@elsewhere.example"), "451")
            before = self.saves(proxy)
            self.assertEqual(self.ask(proxy, "/RELOAD")[0], 0)
            wait_until(lambda count=before: self.saves(proxy) > count, "a save")
        self.assertGreater(len(list(database.parent.iterdir())), 1, "with the one from before beside it")
        # A file that only who asks can read comes with the request.
        exported = self.place.new_folder("elsewhere") / "records.jsonl"
        status, said, _ = self.ask(proxy, "/GREYLIST", "export")
        exported.write_text(said)
        self.assertEqual(self.ask(proxy, "/GREYLIST", "import", exported),
                         (0, "3 read, 0 added, 0 changed, 0 deleted\n", ""))
        exported.unlink()
        status, _, errors = self.ask(proxy, "/GREYLIST", "import", exported)
        self.assertEqual((status, errors), (1, f'Trabex: "{exported}": File not found\n'))
        self.assertEqual(proxy.end(), 0)
        status, said, _ = run_trabex("/GREYLIST", "list", "/I", proxy.ini)
        self.assertEqual((status, said.count(f"@{DOMAIN}")), (0, 3), said)

    def test_logs_are_rotated_and_the_instance_is_asked(self):
        proxy = self.start()
        self.assertEqual(self.send(proxy), "250")
        proxy.wait_for_log("Listen on")
        for log in [*proxy.log_folder.glob("*.log"), proxy.json_log]:
            log.rename(f"{log}.1")
        self.assertEqual(self.ask(proxy, "/REOPENLOG")[0], 0)
        proxy.wait_for_log("Log file reopened.")
        self.assertEqual(self.send(proxy), "250")
        wait_until(proxy.json_log.exists, "the new log in JSON")
        client = self.connect(proxy.address)
        client.read_reply()
        for request in (["/SESSIONS"], ["/STATUS"], ["/DUMP", "/LIVE"]):
            status, said, errors = self.ask(proxy, *request)
            self.assertEqual((status, errors), (0, ""), request)
            self.assertTrue(said, request)
        client.close()
        self.assertEqual(self.ask(proxy, "/X"), (0, "", ""))
        self.assertEqual(proxy.process.wait(), 0)

    def test_certificates_that_are_links(self):
        """As an ACME client has them: live/name.pem leads to ../archive/name1.pem, and is set anew."""
        authority = Authority(self.place)
        archive, live = self.place.new_folder("archive"), self.place.new_folder("live")

        def put(number):
            made = authority.issue(["localhost"])
            for name, file in (("chain", made.chain), ("key", made.key)):
                (archive / f"{name}{number}.pem").write_bytes(file.read_bytes())
                (live / f"{name}.new").symlink_to(f"../archive/{name}{number}.pem")
                (live / f"{name}.new").replace(live / f"{name}.pem")
            return made.serial()

        first = put(1)
        proxy = self.start({"TLS": {"Certificate": f"{live}/chain.pem {live}/key.pem"}})
        self.assertEqual(self.serial(proxy, authority), first)
        second = put(2)
        # A change of the section has the files read at once, rather than when they are looked at next.
        proxy.sections["TLS"]["HandshakeTimeout"] = 31
        self.assertEqual(self.reload(proxy)[0], 0)
        self.assertEqual(self.serial(proxy, authority), second)


class User(Rights):
    def setUp(self):
        super().setUp()
        if os.geteuid() != 0:
            self.skipTest("needs root to become somebody else")
        self.user = pwd.getpwnam(USER)

    def folder_of_user(self, name):
        folder = self.place.new_folder(name)
        os.chown(folder, self.user.pw_uid, self.user.pw_gid)
        return folder

    def start(self, settings=None, sections=None, user=USER, wrapper=(), ini=None):
        settings = {"LogPath": self.folder_of_user("log"), **(settings or {})}
        proxy = self.trabex(self.server.port, settings, sections=sections, json_log=False, start=False,
                            arguments=["/HI", "--user", user])
        proxy.log_folder = Path(settings["LogPath"])
        if ini:
            proxy.ini.rename(ini)
            proxy.ini = ini
        if "BindPort" in settings:
            proxy.port = settings["BindPort"]
            proxy.address = (LOOPBACK, proxy.port)
        proxy.ini.chmod(0o600)
        proxy.wrapper = list(wrapper)
        return proxy.start()

    def assertIsUser(self, proxy, user, group):
        status = status_of(proxy.process.pid)
        self.assertEqual((status["Uid"], status["Gid"]), ([str(user)] * 4, [str(group)] * 4))
        self.assertNotIn("0", status["Groups"])
        for name in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
            self.assertEqual(int(status[name][0], 16), 0, name)
        self.assertEqual(status["NoNewPrivs"], ["1"])

    def test_from_root_to_a_user(self):
        port = low_port()
        if port is None:
            self.skipTest("every port is free for everybody")
        authority = Authority(self.place)
        made = authority.issue(["localhost"])
        secret = self.place.new_folder("secret")
        for name, file in (("chain", made.chain), ("key", made.key)):
            (secret / name).write_bytes(file.read_bytes())
            (secret / name).chmod(0o600)
        secret.chmod(0o700)
        records = self.folder_of_user("records")
        proxy = self.start({"BindPort": port, "LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN},
                           {"TLS": {"Certificate": f"{secret}/chain {secret}/key"},
                            "GreyListing": {"Enabled": 1, "Database": records / "grey.gldb"}})
        self.assertEqual(self.send(proxy, sender="s@elsewhere.example"), "451")
        self.assertEqual(self.serial(proxy, authority), made.serial())
        self.assertIsUser(proxy, self.user.pw_uid, self.user.pw_gid)
        self.assertEqual({log.stat().st_uid for log in proxy.log_folder.iterdir()}, {self.user.pw_uid})
        self.assertEqual(run_trabex("/HI", "/I", proxy.ini, "--user", USER)[::2],
                         (1, "Trabex: The instance of this application listening on the same port already running.\n"))

        # A reload is the user's: a file that only root may read is not read.
        status, errors = self.told(proxy)
        self.assertEqual(status, 1)
        self.assertIn("Permission denied", errors)
        # One that leaves section TLS alone leaves its keys in force.
        status, errors = self.reload(proxy, Timeout=123)
        self.assertEqual((status, self.serial(proxy, authority)), (0, made.serial()), errors)
        proxy.sections["TLS"]["HandshakeTimeout"] = 31
        status, errors = self.reload(proxy)
        self.assertEqual(status, 1)
        self.assertIn(f'Unable to load certificate "{secret}/chain". Permission denied.', errors)
        del proxy.sections["TLS"]["HandshakeTimeout"]
        # A low port cannot be bound any more; those from before go on.
        other = next(one for one in range(port - 1, 400, -1) if one != port)
        status, errors = self.reload(proxy, BindPortTLS=other)
        self.assertEqual(status, 1)
        self.assertIn(f"Error 10013 binding to {endpoint(other)}.", errors)
        self.assertEqual(self.serial(proxy, authority), made.serial())

        self.assertEqual(run_trabex("/X", "/P", port, "--user", USER), (0, "", ""))
        self.assertEqual(proxy.process.wait(), 0)
        self.assertEqual({file.stat().st_uid for file in records.iterdir()}, {self.user.pw_uid})
        self.assertGreater(len(list(records.iterdir())), 0)

    def test_an_automatic_reload_that_wants_a_low_port(self):
        port = low_port()
        if port is None:
            self.skipTest("every port is free for everybody")
        clock = ShiftedClock(self.place.folder)
        proxy = self.start({"BindPort": port}, wrapper=clock.wrapper)
        self.assertEqual(self.send(proxy), "250")
        proxy.write_ini(BindIP=f"{LOOPBACK}, 127.0.0.2")
        proxy.ini.chmod(0o644)

        def is_told():
            # A change counts when the file has stayed as it is for half a minute.
            clock.move(wall=16, monotonic=16)
            with contextlib.suppress(AssertionError):
                wait_until(lambda: "binding to" in proxy.log(), "the reload", 1)
                return True
            return False

        wait_until(is_told, "the automatic reload", 60)
        proxy.wait_for_log(f"Error 10013 binding to 127.0.0.2:{port}.")
        self.assertEqual(self.send(proxy), "250")
        self.assertEqual(proxy.end(), 0)

    def test_by_number(self):
        named = self.start(user=str(self.user.pw_uid))
        self.assertIsUser(named, self.user.pw_uid, self.user.pw_gid)
        number = 71234
        folder = self.place.new_folder("log of a number")
        os.chown(folder, number, number)
        unnamed = self.start({"LogPath": folder}, user=str(number))
        self.assertIsUser(unnamed, number, number)
        for proxy in (named, unnamed):
            self.assertEqual(self.send(proxy), "250")

    def test_what_the_user_may_not_write_is_told(self):
        folders = {key: self.place.new_folder(key) for key in ("LogPath", "Database", "JsonLog")}
        proxy = self.start({"LogPath": folders["LogPath"]},
                           {"GreyListing": {"Enabled": 1, "Database": folders["Database"] / "grey.gldb"},
                            "Service": {"JsonLog": folders["JsonLog"] / "log.json"}})
        self.assertEqual(self.send(proxy), "250")
        for key, folder in folders.items():
            self.assertIn(f'Trabex: User "{USER}" may not write in the folder "{folder}" ({key}).\n',
                          proxy.process.stderr())
            self.assertEqual((folder.stat().st_uid, list(folder.iterdir())), (0, []), "nothing is changed for him")

    def replace(self, folder):
        """Another folder of this name, the user's too; returns where the one of before is."""
        before = folder.with_name(f"{folder.name}.before")
        folder.rename(before)
        folder.mkdir()
        os.chown(folder, self.user.pw_uid, self.user.pw_gid)
        return before

    def test_folders_that_are_replaced(self):
        records = self.folder_of_user("records")
        proxy = self.start({"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN},
                           {"GreyListing": {"Enabled": 1, "Database": records / "grey.gldb"}, "Service": {"Sandbox": 1}})
        self.assertEqual(self.send(proxy, sender="s@elsewhere.example"), "451")
        proxy.wait_for_log("Listen on")
        old_log, old_records = self.replace(proxy.log_folder), self.replace(records)
        self.assertEqual(self.ask(proxy, "/REOPENLOG")[0], 0)
        proxy.wait_for_log("Log file reopened.")
        self.assertEqual(self.send(proxy, sender="t@elsewhere.example"), "451")
        proxy.wait_for_log("t@elsewhere.example")
        before = self.saves(proxy)
        self.assertEqual(self.reload(proxy)[0], 0)
        wait_until(lambda: self.saves(proxy) > before, "a save")
        self.assertTrue((records / "grey.gldb").exists())
        self.assertEqual((len(list(old_log.iterdir())), list(old_records.iterdir())), (1, []))
        self.assertEqual(proxy.process.stderr(), "")

    def test_where_a_replaced_folder_stays_shut(self):
        """All of it must be in force, or the folder above holds what decides, and the user may change that."""
        if why_not := why_no_sandbox():
            self.skipTest(why_not)
        own = self.folder_of_user("own")
        (own / "Log").mkdir()
        os.chown(own / "Log", self.user.pw_uid, self.user.pw_gid)

        def is_shut(proxy):
            self.assertEqual(self.send(proxy), "250")
            proxy.wait_for_log("Listen on")
            self.replace(proxy.log_folder)
            self.ask(proxy, "/REOPENLOG")
            self.assertEqual(self.send(proxy), "250")
            wait_until(lambda: f"{OUTSIDE}. Nothing is logged." in proxy.process.stderr(), "the error")
            self.assertEqual(list(proxy.log_folder.iterdir()), [])

        with self.subTest("Sandbox=2"):
            is_shut(self.start(sections={"Service": {"Sandbox": 2}}))
        with self.subTest("beside an initialization file that the user may replace"):
            is_shut(self.start({"LogPath": own / "Log"}, {"Service": {"Sandbox": 1}}, ini=own / "Trabex.ini"))

    def test_who_cannot_be_become(self):
        proxy = self.trabex(self.server.port, start=False)
        self.assertEqual(run_trabex("/HI", "/I", proxy.ini, "--user", "no-such-user"),
                         (2, "", 'Trabex: There is no user "no-such-user".\n'))
        copy = self.place.copy_program("Trabex")
        copy.chmod(0o755)
        as_user = ["setpriv", "--reuid", USER, "--regid", str(self.user.pw_gid), "--clear-groups"]
        if subprocess.run([*as_user, "test", "-x", copy], check=False).returncode != 0:
            self.skipTest("another user does not reach the folder of the tests")
        done = subprocess.run([*as_user, copy, "/HI", "/I", proxy.ini, "--user", "root"], capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=bound(20), check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (1, "", "Trabex: Only root can become another user.\n"))


if __name__ == "__main__":
    main()
