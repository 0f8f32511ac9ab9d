#!/usr/bin/env python3
"""What ./package --windows makes: the zip and its content, and the installer, which installs, upgrades and uninstalls."""

import json
import os
import re
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

from wine_system import BUILD, WineScenario, run_trabex, wait_until, windows_path  # noqa: I001
from trabex_system import DOMAIN, LOOPBACK, REPO, Process, bound, free_port, ini_text, is_listening, main

sys.path.append(str(REPO / "scripts"))
import sbom_check  # noqa: E402

STOPPED = b"Trabex 3.04.012 stopped.\r\n"
FOLDER = Path(os.environ.get("WINEPREFIX", "")) / "drive_c" / "Trabex"
START_MENU = "drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/Trabex"
MINGW = "x86_64-w64-mingw32"
INSTALLED = ["README.txt", "Trabex-sample.ini", "Trabex.exe", "licences", "manual", "uninstall.exe"]


class Package(WineScenario):
    @classmethod
    def setUpClass(cls):
        done = subprocess.run([str(REPO / "scripts" / "package-windows")], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              check=False, timeout=bound(300))
        if done.returncode != 0:
            raise AssertionError(done.stdout + done.stderr)
        archive, installer = done.stdout.splitlines()[-2:]
        cls.archive, cls.installer = REPO / archive, REPO / installer

    def names(self):
        """What lies in the program's folder."""
        return sorted(path.name for path in FOLDER.iterdir()) if FOLDER.exists() else []

    @staticmethod
    def remove_folder():
        shutil.rmtree(FOLDER, ignore_errors=True)

    def install(self):
        done = subprocess.run(["wine", str(self.installer), "/S"], stdin=subprocess.DEVNULL, check=False, timeout=bound(120))
        self.assertEqual(done.returncode, 0)

    def start(self):
        """An instance as it was installed, at work."""
        process = Process(self.place, "Trabex", ["wine", str(FOLDER / "Trabex.exe"), "/HI"])
        self.place.on_leaving(process.end)
        process.wait_listening(self.port, 60)
        client = self.connect((LOOPBACK, self.port))
        self.assertEqual(client.read_reply()[:3], "220")
        # Greylisting keeps a record of it.
        for line, code in (("HELO client.example", "250"), ("MAIL FROM:<s@elsewhere.invalid>", "250"),
                           (f"RCPT TO:<r@{DOMAIN}>", "451")):
            self.assertEqual(client.command(line)[:3], code)
        return process, client

    def assertEnded(self, process, client):
        self.assertEqual(client.read_to_end()[:3], b"421")
        self.assertEqual(process.wait(), 0)
        log, = (FOLDER / "Log").glob("*.log")
        self.assertTrue(log.read_bytes().endswith(STOPPED))

    def uninstall(self):
        # Without _? it would run on from a copy of its own.
        subprocess.run(["wine", str(FOLDER / "uninstall.exe"), "/S"], stdin=subprocess.DEVNULL, check=True, timeout=bound(120))
        wait_until(lambda: "uninstall.exe" not in self.names(), "the uninstaller to end", 60)

    def test_installed_upgraded_and_uninstalled(self):
        server = self.sample_server()
        self.remove_folder()
        self.place.on_leaving(self.remove_folder)
        self.install()
        self.assertEqual(self.names(), sorted([*INSTALLED, "Trabex.ini"]))
        ini = FOLDER / "Trabex.ini"
        self.assertEqual(ini.read_bytes(), (FOLDER / "Trabex-sample.ini").read_bytes())
        menu = Path(os.environ["WINEPREFIX"]) / START_MENU
        self.assertEqual(sorted(path.name for path in menu.iterdir()), ["Manual.lnk", "Trabex.lnk", "Uninstall Trabex.lnk"])

        self.port = free_port()
        own = ini_text({"BindIP": LOOPBACK, "BindPort": self.port, "ServerIP": LOOPBACK, "ServerPort": server.port,
                        "LocalIPs": "10.0.0.0/8", "LocalDomains": DOMAIN}, {"GreyListing": {"Enabled": 1}}).encode()
        ini.write_bytes(own)
        process, client = self.start()
        (FOLDER / "README.txt").write_text("of the version before")
        self.install()
        self.assertEnded(process, client)
        self.assertEqual(ini.read_bytes(), own)
        self.assertNotEqual((FOLDER / "README.txt").read_text(), "of the version before")

        process, client = self.start()
        self.uninstall()
        self.assertEnded(process, client)
        self.assertEqual(self.names(), ["GreyListing", "Log", "Trabex.ini"])
        self.assertEqual(ini.read_bytes(), own)
        self.assertTrue((FOLDER / "GreyListing" / "GreyListing.gldb").exists())
        wait_until(lambda: not menu.exists(), "the start menu's entries to go", 60)
        self.assertFalse(is_listening(self.port))

    def test_zip(self):
        with zipfile.ZipFile(self.archive) as archive:
            self.assertIsNone(archive.testzip())
            files = {name.split("/", 1)[1]: archive.read(name) for name in archive.namelist()}
        self.assertLessEqual({"Trabex.exe", "Trabex-sample.ini", "README.txt", "manual/windows.html", "manual/settings.html",
                              "licences/Trabex.txt", "licences/c-ares.txt", "licences/openssl.txt", "licences/utf8proc.txt",
                              "licences/gcc-runtime.txt", "licences/mingw-w64-runtime.txt"}, set(files))
        for name, content in files.items():
            if not name.endswith(".exe"):
                self.assertEqual(content.count(b"\n"), content.count(b"\r\n"), name)
            if name.endswith(".html"):
                for target in re.findall(rb'(?:href|src)="([^"#]+)', content):
                    if b"://" not in target:
                        self.assertIn(f"manual/{target.decode()}", files, name)
        bill = json.loads(files["licences/trabex.spdx.json"])
        self.assertEqual(sbom_check.problems(bill, {f"./{name}": content for name, content in files.items()},
                                             ["c-ares", "openssl", "utf8proc", "gcc-mingw-w64-base", "mingw-w64-x86-64-dev"]), [])
        folder = self.place.new_folder("unpacked")
        (folder / "Trabex.exe").write_bytes(files["Trabex.exe"])
        (folder / "Trabex-sample.ini").write_bytes(files["Trabex-sample.ini"])
        status, out, err = run_trabex("--check", "/I", windows_path(folder / "Trabex-sample.ini"),
                                      executable=folder / "Trabex.exe")
        self.assertEqual(status, 0, out + err)
        self.assertIn("0 errors, ", out)
        sections = subprocess.run([f"{MINGW}-objdump", "-h", str(folder / "Trabex.exe")], capture_output=True, text=True,
                                  check=True).stdout
        self.assertNotIn(".debug", sections)


# Functions that take text in the code page of the system, which loses names: where each comes from. The program itself calls
# none of them; it links these libraries statically.
IN_CODE_PAGE = {
    "CreateEventA": "libwinpthread.a", "CreateSemaphoreA": "libwinpthread.a", "ExpandEnvironmentStringsA": "libcares.a",
    "FormatMessageA": "libstdc++.a", "GetModuleHandleA": "libwinpthread.a", "GetStartupInfoA": "crt2.o",
    "GetSystemDirectoryA": "libcares.a", "GetVersionExA": "libcares.a", "GetWindowsDirectoryA": "libcares.a",
    "LoadLibraryA": "libmingwex.a", "OutputDebugStringA": "libwinpthread.a", "ReadConsoleA": "libcrypto.a",
    "RegEnumKeyExA": "libcares.a", "RegOpenKeyExA": "libcares.a", "RegQueryValueExA": "libcares.a",
}


class Executable(WineScenario):
    """What the system reads of it without running it."""

    SYSTEM = {"advapi32.dll", "bcrypt.dll", "comctl32.dll", "crypt32.dll", "gdi32.dll", "iphlpapi.dll", "kernel32.dll",
              "msvcrt.dll", "ole32.dll", "shcore.dll", "shell32.dll", "user32.dll", "ws2_32.dll"}

    def objdump(self, *options):
        return subprocess.run([f"{MINGW}-objdump", *options, str(BUILD / "Trabex.exe")], capture_output=True, check=True,
                              timeout=bound(60)).stdout

    def test_imports_libraries_of_the_system_only(self):
        imported = {name.decode().lower() for name in re.findall(rb"DLL Name: (\S+)", self.objdump("-p"))}
        self.assertIn("user32.dll", imported)
        self.assertLessEqual(imported, self.SYSTEM)

    @staticmethod
    def wanted_of_the_system(*files):
        """Functions of libraries of the system that object files call."""
        said = subprocess.run([f"{MINGW}-nm", "--undefined-only", *map(str, files)], capture_output=True, text=True, check=True,
                              timeout=bound(120)).stdout
        return set(re.findall(r" U __imp_(\w+)$", said, re.MULTILINE))

    def test_calls_no_function_that_takes_text_in_a_code_page(self):
        libraries = sorted((BUILD / "src").rglob("lib*.a"))
        self.assertGreater(len(libraries), 10)
        wanted = self.wanted_of_the_system(*libraries)
        self.assertIn("CreateWindowExW", wanted)
        # Each that has a twin has W instead of A at its end.
        system = set()
        for name in ("advapi32", "comctl32", "gdi32", "iphlpapi", "kernel32", "shell32", "user32", "ws2_32"):
            said = subprocess.run([f"{MINGW}-nm", f"/usr/{MINGW}/lib/lib{name}.a"], capture_output=True, text=True, check=False,
                                  timeout=bound(120)).stdout
            system |= set(re.findall(r" __imp_(\w+)$", said, re.MULTILINE))
        in_code_page = {name for name in system if name.endswith("A") and f"{name[:-1]}W" in system}
        self.assertLessEqual({"CreateWindowExA", "RegOpenKeyExA", "CreateFileA"}, in_code_page)
        self.assertEqual(wanted & in_code_page, set())
        # Nor do other libraries that nobody knows of.
        imported = {name.decode() for name in re.findall(rb"^\t[0-9a-f]+\s+\d+\s+(\w+)$", self.objdump("-p"), re.MULTILINE)}
        self.assertIn("CreateWindowExW", imported)
        self.assertLessEqual(imported & in_code_page, set(IN_CODE_PAGE))

    def test_sources_have_the_system_in_their_folders_only(self):
        """What is the same on all systems asks for none, and one file alone brings windows.h with its macros."""
        sources = [path for suffix in ("*.h", "*.cpp") for path in sorted((REPO / "src").rglob(suffix))]
        self.assertGreater(len(sources), 100)
        brings = [path.name for path in sources if re.search(r"#\s*include\s*<windows\.h>", path.read_text(encoding="utf-8"), re.I)]
        self.assertEqual(brings, ["win.h"])
        asks = [str(path) for path in sources if re.search(r"^\s*#\s*\w+.*\b(_WIN32|_WIN64|WIN32|__MINGW32__|__linux__|__unix__)\b",
                                                           path.read_text(encoding="utf-8"), re.MULTILINE)]
        self.assertEqual([path for path in asks if "/src/platform/" not in path], [])

    def test_guards(self):
        """What the system does for it against faults with memory."""
        flags = re.search(rb"^DllCharacteristics\s+([0-9a-f]+)$", self.objdump("-p"), re.MULTILINE)
        high_entropy, dynamic_base, no_execution = 0x20, 0x40, 0x100
        for flag in (high_entropy, dynamic_base, no_execution):
            self.assertTrue(int(flags.group(1), 16) & flag, f"{flag:#x}")
        # Nothing of that helps a program that can only lie where it was linked for.
        self.assertIn(" .reloc ", subprocess.run([f"{MINGW}-objdump", "-h", str(BUILD / "Trabex.exe")], capture_output=True,
                                                 text=True, check=True).stdout)

    def test_resources(self):
        content = (BUILD / "Trabex.exe").read_bytes()
        version = content.index("VS_VERSION_INFO".encode("utf-16-le"))
        fixed = content.index(bytes.fromhex("bd04effe"), version)
        numbers = [int.from_bytes(content[at:at + 2], "little") for at in (fixed + 10, fixed + 8, fixed + 14, fixed + 12)]
        self.assertEqual(numbers, [3, 4, 12, 0])
        for text in (b'name="Microsoft.Windows.Common-Controls" version="6.0.0.0"', b">PerMonitorV2, PerMonitor<",
                     b">true</longPathAware>", b'level="asInvoker"'):
            self.assertEqual(content.count(text), 1, text)
        self.assertIn(b"(Windows GUI)", self.objdump("-p"))


if __name__ == "__main__":
    main()
