#!/usr/bin/env python3
"""Trabex.exe at work: mail, instances, command line, files and their names, reload, greylisting, many sessions."""

import asyncio
import contextlib
import re
import shutil
import subprocess
import threading
import traceback

from wine_system import (WineScenario, command, program, run_trabex, wait_until, windows_path,  # noqa: I001
                         xdotool)
from messages import any_bytes, binary_lines, text_message
from trabex_system import (DOMAIN, LOOPBACK, Process, Smtp, bound, endpoint, free_port, ini_text, is_listening,
                           main, without_received)

HELP = """Command line switches:

/P <portnumber>, /PORT <portnumber> - specify port to listen;
/M, /MINIMIZE - run minimized;
/HI, /HIDE - run hidden;
/I <ini file pathname>, /INIFILE <ini file pathname> - specify initialization file;
/L <log dir>, /LOGPATH <log dir> - specify log directory;
/X, /EXIT - close another instance;
/H, /?, /HELP - show this message."""
STOPPED = "Trabex 3.04.012 stopped."
TAKEN = "The instance of this application listening on the same port already running."
RELOADED = "Configuration reloaded because date/time of initialization file changed."


class Greeter:
    """A server for any number of clients, which is all polite words; the sample mail server takes only some hundreds."""

    def __init__(self, place):
        self.port = free_port()
        self.clients = 0
        self._loop = asyncio.new_event_loop()
        self._server = self._loop.run_until_complete(
            asyncio.start_server(self._serve, LOOPBACK, self.port, backlog=1000))
        self._thread = threading.Thread(target=self._loop.run_forever, daemon=True)
        self._thread.start()
        place.on_leaving(self._leave)

    async def _serve(self, reader, writer):
        self.clients += 1
        writer.write(b"220 server.example\r\n")
        with contextlib.suppress(OSError):
            while line := await reader.readline():
                writer.write(b"221 bye\r\n" if line.upper().startswith(b"QUIT") else b"250 yes\r\n")
        writer.close()

    def _leave(self):
        self._loop.call_soon_threadsafe(self._server.close)
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join()


class Mail(WineScenario):
    def test_byte_for_byte(self):
        server = self.sample_server()
        proxy = self.trabex(server.port)
        sent = [text_message(1), text_message(2, 200_000), binary_lines(3, 2_000_000)]
        with Smtp(proxy.address) as client:
            for content in sent:
                client.sendmail(f"s@{DOMAIN}", f"r@{DOMAIN}", content, mail_options=["BODY=8BITMIME"])
        chunks = [any_bytes(4, 300_000), any_bytes(5, 1), any_bytes(6, 70_000)]
        with Smtp(proxy.address) as client:
            client.bdat(f"s@{DOMAIN}", [f"r@{DOMAIN}"], chunks)
        arrived = server.wait_for_messages(4)
        for number, content in enumerate([*sent, b"".join(chunks)]):
            self.assertSame(content, without_received(arrived[number].content), f"message {number}")
        self.assertEqual(proxy.end(), 0)
        self.assertEqual(proxy.log_lines()[-1], STOPPED)

    def test_a_thousand_sessions(self):
        """All open at the same time, and each is answered."""
        server = Greeter(self.place)
        proxy = self.trabex(server.port, {"MaxConnections": 0})
        clients = [self.connect(proxy.address) for _ in range(1000)]
        for client in clients:
            client.socket.settimeout(bound(120))
            self.assertEqual(client.read_reply()[:3], "220")
        self.assertEqual(server.clients, 1000)
        for number, client in enumerate(clients):
            self.assertEqual(client.command(f"HELO client{number}.example")[:3], "250")
        for client in clients:
            client.send_line("QUIT")
        for client in clients:
            self.assertEqual(client.read_reply()[:3], "221")
            client.close()

    def test_many_at_a_time(self):
        server = self.sample_server()
        proxy = self.trabex(server.port)
        failures = []

        def deliver(number):
            try:
                with Smtp(proxy.address) as client:
                    for turn in range(10):
                        client.sendmail(f"s@{DOMAIN}", f"r{number}-{turn}@{DOMAIN}",
                                        text_message(number * 100 + turn, number * 3000))
            except Exception:
                failures.append(traceback.format_exc())

        threads = [threading.Thread(target=deliver, args=(number,), daemon=True) for number in range(10)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(bound(120))
        self.assertEqual(failures, [])
        server.wait_for_count(100)
        for message in server.messages():
            number, turn = map(int, re.match(r"r(\d+)-(\d+)@", message.recipients[0]).groups())
            self.assertSame(text_message(number * 100 + turn, number * 3000), without_received(message.content),
                            message.recipients[0])


class Instances(WineScenario):
    def test_exit_and_second_instance(self):
        server = self.sample_server()
        proxy = self.trabex(server.port)
        client = self.connect(proxy.address)
        client.read_reply()
        status, out, _ = run_trabex("/I", proxy.ini, "/HI")
        self.assertEqual((status, out), (1, ""))
        self.assertEqual(proxy.log_lines()[-1], TAKEN)
        self.assertEqual(client.command("HELO client.example")[:3], "250", "the first one goes on")
        self.assertEqual(proxy.ask_to_end()[0], 0)
        self.assertEqual(client.read_to_end()[:3], b"421")
        self.assertEqual(proxy.process.wait(), 0)
        self.assertEqual(proxy.log_lines()[-1], STOPPED)
        self.assertFalse(is_listening(proxy.port))
        self.assertEqual(proxy.ask_to_end()[0], 0, "there is none any more")
        # The name is free again.
        proxy.start()

    def test_two_ports(self):
        server = self.sample_server()
        first, second = self.trabex(server.port), self.trabex(server.port)
        self.assertEqual(first.end(), 0)
        client = self.connect(second.address)
        self.assertEqual(client.read_reply()[:3], "220")
        self.assertNotIn(STOPPED, second.log_lines())

    def test_port_of_the_command_line(self):
        server = self.sample_server()
        proxy = self.trabex(server.port)
        port = free_port()
        other = Process(self.place, "Trabex", [*proxy.command(), "/P", str(port)])
        self.place.on_leaving(other.end)
        other.wait_listening(port, 60)
        status, _, _ = run_trabex("/I", proxy.ini, "/P", port, "/X")
        self.assertEqual((status, other.wait()), (0, 0))
        self.assertTrue(is_listening(proxy.port))

    def test_port_in_use(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"BindPort": server.port, "ServerPort": 1}, start=False)
        status, _, _ = run_trabex("/I", proxy.ini, "/HI")
        self.assertEqual(status, 1)
        lines = proxy.log_lines()
        self.assertEqual((lines[0], lines[-1]), ("Trabex 3.04.012 started.", STOPPED))
        self.assertRegex(lines[1], rf"^Error 10048 binding to {re.escape(endpoint(server.port))}\. .")


class CommandLine(WineScenario):
    REFUSED = ((["/Q"], 'Invalid switch "/Q".'), (["x y"], 'Invalid switch ""x y"".'),
               (["/P", "0"], 'Invalid port number "0".'), (["/PORT", "70000"], 'Invalid port number "70000".'),
               (["/HI", "/Q", "/H"], 'Invalid switch "/Q".'))

    def test_into_a_pipe(self):
        for switch in ("/H", "/?", "/help", "--help"):
            status, out, _ = run_trabex(switch)
            self.assertEqual((status, out.replace("\r\n", "\n").rstrip("\n")), (0, HELP), switch)
        self.assertEqual(run_trabex("--version")[:2], (0, "Trabex 3.04.012\n"))
        for arguments, message in self.REFUSED:
            status, out, err = run_trabex(*arguments)
            self.assertEqual((status, out), (2, ""), arguments)
            self.assertIn(message, err, arguments)

    def test_as_a_box(self):
        """There is no stream to write to: a box says it, with the title as its caption, until somebody has read it."""
        for arguments, status, text in ((["/H"], 0, HELP), (["/Q"], 2, 'Invalid switch "/Q".'),
                                        (["/P", "0"], 2, 'Invalid port number "0".')):
            with self.subTest(arguments=arguments):
                child = subprocess.Popen(command("Trabex.exe", *arguments), stdin=subprocess.DEVNULL,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                self.place.on_leaving(child.kill)
                box = wait_until(self.box, "the box", 60)
                self.assertEqual(box["text"].replace("\r\n", "\n").rstrip("\n"), text)
                self.assertIsNone(child.poll(), "it waits")
                self.close_box()
                self.assertEqual(child.wait(bound(20)), status)
                wait_until(lambda: not self.reader.ask("boxes"), "the box to go")

    def box(self):
        """The box, once it has its caption."""
        return next((box for box in self.reader.ask("boxes") if box["caption"] == "Trabex"), None)

    @staticmethod
    def close_box():
        window, = wait_until(lambda: xdotool("search", "--onlyvisible", "--name", "^Trabex$").split(), "the box on the display")
        xdotool("windowactivate", "--sync", window)
        xdotool("key", "Return")


class Names(WineScenario):
    """Files with blanks and characters of other scripts in their names, wherever a name is given."""

    def setUp(self):
        super().setUp()
        self.server = self.sample_server()
        self.port = free_port()
        self.settings = {"BindIP": LOOPBACK, "BindPort": self.port, "ServerIP": LOOPBACK, "ServerPort": self.server.port}

    def run_session(self, arguments, executable=None, cwd=None):
        start = ["wine", str(executable or program("Trabex.exe")), *arguments]
        process = Process(self.place, "Trabex", start, cwd=cwd)
        self.place.on_leaving(process.end)
        process.wait_listening(self.port, 60)
        client = self.connect((LOOPBACK, self.port))
        self.assertEqual(client.read_reply()[:3], "220")
        # With greylisting on, this leaves a record.
        for line in ("HELO client.example", "MAIL FROM:<s@elsewhere.invalid>", f"RCPT TO:<r@{DOMAIN}>"):
            client.command(line)
        run_trabex("/P", self.port, "/X", "/I", "none.ini")
        self.assertEqual(client.read_to_end()[:3], b"421")
        self.assertEqual(process.wait(), 0)

    def only_log(self, folder):
        log, = folder.glob("*.log")
        self.assertIn(b" started.\r\n", log.read_bytes())
        return log.name

    def test_initialization_file_and_log(self):
        folder = self.place.new_folder("Grüße von 日本 to all")
        ini = folder / "große Datei 本.ini"
        ini.write_text(ini_text({**self.settings, "LogPath": windows_path(self.place.folder / "not this")}), encoding="utf-8")
        log = folder / "Log ünd 日"
        self.run_session(["/HI", "/I", windows_path(ini), "/L", windows_path(log)])
        self.assertRegex(self.only_log(log), rf"^Trabex-{self.port}-\d{{6}}\.log$")
        self.assertFalse((self.place.folder / "not this").exists())

    def test_names_in_the_file(self):
        folder = self.place.new_folder("Ablage für 日本")
        ini = self.place.folder / "x.ini"
        ini.write_text(ini_text({**self.settings, "LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN,
                                 "LogPath": windows_path(folder / "Protokoll ö")},
                                {"GreyListing": {"Enabled": 1, "Delay": 0, "Database": windows_path(folder / "Graue Listen ß.gldb")}}),
                       encoding="utf-8")
        self.run_session(["/HI", "/I", windows_path(ini)])
        self.only_log(folder / "Protokoll ö")
        self.assertGreater((folder / "Graue Listen ß.gldb").stat().st_size, 20)

    def test_beside_the_program(self):
        """Named by the executable, which is called as somebody wants."""
        folder = self.place.new_folder("Mein Trabex ö")
        executable = folder / "Umbenannt ß.exe"
        shutil.copy(program("Trabex.exe"), executable)
        (folder / "Umbenannt ß.ini").write_text(ini_text(self.settings), encoding="utf-8")
        self.run_session(["/HI"], executable, cwd="/")
        self.assertRegex(self.only_log(folder / "Log"), rf"^Umbenannt ß-{self.port}-\d{{6}}\.log$")

    def test_relative_names(self):
        folder = self.place.new_folder("program")
        shutil.copy(program("Trabex.exe"), folder / "Trabex.exe")
        current = self.place.new_folder("current")
        (current / "sub").mkdir()
        text = ini_text({**self.settings, "LogPath": windows_path(self.place.folder / "Log")})
        for given, file in (("with blank.ini", folder / "with blank.ini"), (".\\here.ini", current / "here.ini"),
                            ("..\\up.ini", current.parent / "up.ini"), ("./sub/x.ini", current / "sub" / "x.ini")):
            with self.subTest(given=given):
                file.write_text(text)
                self.run_session(["/HI", "/I", given], folder / "Trabex.exe", cwd=current)
                file.unlink()


class Reload(WineScenario):
    SECONDS = 90

    def test_ways_of_saving(self):
        """All at the same time, since each takes three quarters of a minute."""
        server = self.sample_server()
        proxies = {way: self.trabex(server.port, {"MaxRecipientsLocal": 5}) for way in ("in place", "replaced")}
        client = self.connect(proxies["replaced"].address)
        client.read_reply()
        for way, proxy in proxies.items():
            proxy.write_ini(in_place=way == "in place", MaxRecipientsLocal=1)
        for way, proxy in proxies.items():
            proxy.wait_for_log(RELOADED, 1, self.SECONDS)
        for line, code in (("EHLO client.example", "250"), (f"MAIL FROM:<s@{DOMAIN}>", "250"),
                           (f"RCPT TO:<r@{DOMAIN}>", "250"), (f"RCPT TO:<q@{DOMAIN}>", "452")):
            self.assertEqual(client.command(line)[:3], code, line)

    def test_on_request(self):
        server = self.sample_server()
        proxy = self.trabex(server.port, {"MaxRecipientsLocal": 5})
        proxy.write_ini(MaxRecipientsLocal=1)
        status, _, err = run_trabex("/I", proxy.ini, "/RELOAD")
        self.assertEqual(status, 0, err)
        client = self.connect(proxy.address)
        client.read_reply()
        for line, code in (("EHLO client.example", "250"), (f"MAIL FROM:<s@{DOMAIN}>", "250"),
                           (f"RCPT TO:<r@{DOMAIN}>", "250"), (f"RCPT TO:<q@{DOMAIN}>", "452")):
            self.assertEqual(client.command(line)[:3], code, line)


class GreyListing(WineScenario):
    def attempt(self, proxy, recipient):
        """The code of the reply to the recipient."""
        client = self.connect(proxy.address)
        client.read_reply()
        for line in ("EHLO client.example", "MAIL FROM:<s@elsewhere.invalid>"):
            self.assertEqual(client.command(line)[:3], "250")
        code = client.command(f"RCPT TO:<{recipient}@{DOMAIN}>")[:3]
        client.close()
        return code

    def test_saved_kept_and_loaded(self):
        server = self.sample_server()
        database = self.place.new_folder("Graue Liste") / "grey.gldb"
        proxy = self.trabex(server.port, {"LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN},
                            sections={"GreyListing": {"Enabled": 1, "Delay": 0, "BlackListDelay": 0, "BlackListMinCount": 1,
                                                      "Database": database}})
        self.assertEqual(self.attempt(proxy, "first"), "451")
        self.assertEqual(proxy.end(), 0)
        self.assertEqual(int.from_bytes(database.read_bytes()[11:15], "little"), 1)
        self.assertEqual([path.name for path in database.parent.iterdir()], ["grey.gldb"])
        before = database.read_bytes()
        proxy.start()
        self.assertEqual(self.attempt(proxy, "first"), "250", "the record was loaded")
        self.assertEqual(self.attempt(proxy, "second"), "451")
        self.assertEqual(proxy.end(), 0)
        self.assertEqual(int.from_bytes(database.read_bytes()[11:15], "little"), 2)
        backup, = (path for path in database.parent.iterdir() if path != database)
        self.assertEqual(backup.read_bytes(), before)


if __name__ == "__main__":
    main()
