#!/usr/bin/python3
"""Checks every resource the shipped updater.exe must carry, read back with pefile: the icon
group IDI_ICON1 (PNG images of 16 to 256 pixels), the asInvoker manifest with common controls
6, the version block. Usage: check_resources.py <updater.rc> <work dir> compiles the resource
script with MinGW's windres into a stub executable first; check_resources.py --exe <updater.exe>
checks a built updater.exe (the Windows cross build), which must also be a 64-bit GUI image
that imports from Windows' own DLLs only, so that it runs with no DLL beside it."""
import os
import struct
import subprocess
import sys

import pefile

RT_ICON, RT_GROUP_ICON, RT_MANIFEST = 3, 14, 24
# DLLs that every 64-bit Windows has; anything else (Qt5Core.dll, libstdc++-6.dll,
# libcrypto-3-x64.dll...) would have to be shipped beside the executable.
SYSTEM_DLLS = {
    "advapi32.dll", "bcrypt.dll", "comdlg32.dll", "crypt32.dll", "dnsapi.dll", "dwmapi.dll", "gdi32.dll", "imm32.dll",
    "iphlpapi.dll", "kernel32.dll", "mpr.dll", "msvcrt.dll", "netapi32.dll", "ole32.dll", "oleaut32.dll",
    "secur32.dll", "setupapi.dll", "shell32.dll", "shlwapi.dll", "user32.dll", "userenv.dll", "uxtheme.dll",
    "version.dll", "winmm.dll", "winspool.drv", "ws2_32.dll", "wtsapi32.dll"}
failures = []


def check(actual, expected, what):
    if actual != expected:
        failures.append(f"{what}: {actual!r}, want {expected!r}")


def resources(pe, type_id):
    """{name or id: data of its first language} of one resource type."""
    found, root = {}, getattr(pe, "DIRECTORY_ENTRY_RESOURCE", None)
    for entry in root.entries if root else []:
        for item in entry.directory.entries if entry.id == type_id else []:
            leaf = item.directory.entries[0].data.struct
            found[str(item.name) if item.name else item.id] = pe.get_data(leaf.OffsetToData, leaf.Size)
    return found


def check_resources(pe):
    groups, icons = resources(pe, RT_GROUP_ICON), resources(pe, RT_ICON)
    check(list(groups), ["IDI_ICON1"], "icon groups")
    group = groups.get("IDI_ICON1", b"\0" * 6)
    images = []
    for i in range(struct.unpack_from("<H", group, 4)[0]):
        width, _, _, _, _, _, _, icon_id = struct.unpack_from("<BBBBHHIH", group, 6 + 14 * i)
        png = icons.get(icon_id, b"")
        images.append((png[:8], struct.unpack(">II", png[16:24]) if len(png) >= 24 else None, width or 256))
    sizes = [16, 24, 32, 48, 64, 128, 256]
    check(sorted(images), [(b"\x89PNG\r\n\x1a\n", (n, n), n) for n in sizes], "icons (PNG magic, size, listed width)")
    text = resources(pe, RT_MANIFEST).get(1, b"").decode("utf-8")
    for needed in ['level="asInvoker"', 'uiAccess="false"', 'name="Microsoft.Windows.Common-Controls"',
                   'version="6.0.0.0"']:
        check(needed in text, True, f"{needed} in the application manifest with id 1")
    fixed = pe.VS_FIXEDFILEINFO[0] if hasattr(pe, "VS_FIXEDFILEINFO") else None
    version = lambda ms, ls: f"{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}.{ls & 0xFFFF}"  # noqa: E731
    check(fixed and (version(fixed.FileVersionMS, fixed.FileVersionLS),
                     version(fixed.ProductVersionMS, fixed.ProductVersionLS)), ("5.0.153.0", "5.0.153.0"),
          "fixed file and product version")
    strings = {k.decode(): v.decode() for info in getattr(pe, "FileInfo", [[]])[0] if info.Key == b"StringFileInfo"
               for table in info.StringTable for k, v in table.entries.items()}
    check({k: strings.get(k) for k in ("FileVersion", "ProductVersion", "OriginalFilename", "ProductName")},
          {"FileVersion": "5.0.153.0", "ProductVersion": "5.0.153.0", "OriginalFilename": "updater.exe",
           "ProductName": "updater"}, "version strings")


def check_image(pe):
    check(pe.FILE_HEADER.Machine, pefile.MACHINE_TYPE["IMAGE_FILE_MACHINE_AMD64"], "machine")
    check(pe.OPTIONAL_HEADER.Subsystem, pefile.SUBSYSTEM_TYPE["IMAGE_SUBSYSTEM_WINDOWS_GUI"], "subsystem")
    imports = sorted(e.dll.decode().lower() for e in getattr(pe, "DIRECTORY_ENTRY_IMPORT", []))
    check(bool(imports), True, "an import table")
    check([dll for dll in imports if dll not in SYSTEM_DLLS], [], "imported DLLs that Windows does not have")
    print("imports:", " ".join(imports))


def main():
    if sys.argv[1] == "--exe":
        pe = pefile.PE(sys.argv[2])
        check_image(pe)
    else:
        work = sys.argv[2]
        os.makedirs(work, exist_ok=True)
        with open(os.path.join(work, "stub.cpp"), "w") as f:
            f.write("int main() { return 0; }\n")
        subprocess.run(["x86_64-w64-mingw32-windres", sys.argv[1], "-O", "coff", "-o", f"{work}/res.o"], check=True)
        subprocess.run(["x86_64-w64-mingw32-g++", "-static", "-mwindows", f"{work}/stub.cpp", f"{work}/res.o", "-o",
                        f"{work}/stub.exe"], check=True)
        pe = pefile.PE(f"{work}/stub.exe")
    check_resources(pe)
    print("\n".join([f"FAIL: {f}" for f in failures] + [f"{len(failures)} resource checks failed"]))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
