#!/usr/bin/python3
"""Compiles the updater's resource script with MinGW's windres, links it into a stub
executable, reads the resources back with pefile and checks every value the shipped
updater.exe must carry. Usage: check_resources.py <updater.rc> <work dir>

With --exe it checks a built updater.exe instead (the Windows cross build): the same
resources, a 64-bit GUI-subsystem image, and imports from Windows' own DLLs only, so that it
runs with no DLL beside it. Usage: check_resources.py --exe <updater.exe>"""
import os
import struct
import subprocess
import sys

import pefile

RT_ICON, RT_GROUP_ICON, RT_VERSION, RT_MANIFEST = 3, 14, 16, 24
ICON_SIZES = [16, 24, 32, 48, 64, 128, 256]
PNG_MAGIC = b"\x89PNG\r\n\x1a\n"

failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def build_stub(rc_path, work):
    res = os.path.join(work, "updater_res.o")
    stub_src = os.path.join(work, "stub.cpp")
    stub = os.path.join(work, "stub.exe")
    with open(stub_src, "w") as f:
        f.write("int main() { return 0; }\n")
    subprocess.run(["x86_64-w64-mingw32-windres", rc_path, "-O", "coff", "-o", res], check=True)
    subprocess.run(["x86_64-w64-mingw32-g++", "-static", "-mwindows", stub_src, res, "-o", stub], check=True)
    return stub


def resource_dir(pe, type_id):
    root = getattr(pe, "DIRECTORY_ENTRY_RESOURCE", None)
    for entry in root.entries if root else []:
        if entry.id == type_id:
            return entry.directory
    return None


def first_data(pe, entry):
    leaf = entry.directory.entries[0].data.struct
    return pe.get_data(leaf.OffsetToData, leaf.Size)


def check_icons(pe):
    groups = resource_dir(pe, RT_GROUP_ICON)
    check(groups is not None, "no icon group")
    if groups is None:
        return
    names = [str(e.name) for e in groups.entries if e.name is not None]
    check(names == ["IDI_ICON1"], f"icon group names {names}, want ['IDI_ICON1']")
    group = first_data(pe, groups.entries[0])
    _, kind, count = struct.unpack_from("<HHH", group, 0)
    check(kind == 1 and count == len(ICON_SIZES), f"icon group holds {count} images, want 7")
    icons = {e.id: first_data(pe, e) for e in resource_dir(pe, RT_ICON).entries}
    sizes = []
    for i in range(count):
        width, height, _, _, _, _, _, icon_id = struct.unpack_from("<BBBBHHIH", group, 6 + 14 * i)
        png = icons.get(icon_id, b"")
        check(png.startswith(PNG_MAGIC), f"icon {icon_id} is not a PNG image")
        png_w, png_h = struct.unpack(">II", png[16:24]) if len(png) >= 24 else (0, 0)
        check(png_w == png_h, f"icon {icon_id} is not square ({png_w}x{png_h})")
        check((width or 256) == png_w, f"icon {icon_id} directory width {width} != PNG width {png_w}")
        sizes.append(png_w)
    check(sorted(sizes) == ICON_SIZES, f"icon sizes {sorted(sizes)}, want {ICON_SIZES}")


def check_manifest(pe):
    manifests = resource_dir(pe, RT_MANIFEST)
    check(manifests is not None and manifests.entries[0].id == 1, "no application manifest with id 1")
    if manifests is None:
        return
    text = first_data(pe, manifests.entries[0]).decode("utf-8")
    check('level="asInvoker"' in text, "manifest does not request asInvoker")
    check('uiAccess="false"' in text, "manifest asks for uiAccess")
    check('name="Microsoft.Windows.Common-Controls"' in text and 'version="6.0.0.0"' in text,
          "manifest does not declare common controls 6.0.0.0")


def check_version(pe):
    check(hasattr(pe, "VS_FIXEDFILEINFO"), "no version block")
    if not hasattr(pe, "VS_FIXEDFILEINFO"):
        return
    fixed = pe.VS_FIXEDFILEINFO[0]
    version = lambda ms, ls: f"{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}.{ls & 0xFFFF}"
    check(version(fixed.FileVersionMS, fixed.FileVersionLS) == "5.0.153.0", "fixed file version")
    check(version(fixed.ProductVersionMS, fixed.ProductVersionLS) == "5.0.153.0", "fixed product version")
    strings = {}
    for info in pe.FileInfo[0]:
        if info.Key == b"StringFileInfo":
            for table in info.StringTable:
                strings.update({k.decode(): v.decode() for k, v in table.entries.items()})
    expected = {"FileVersion": "5.0.153.0", "ProductVersion": "5.0.153.0",
                "OriginalFilename": "updater.exe", "ProductName": "updater"}
    for key, value in expected.items():
        check(strings.get(key) == value, f"{key} is {strings.get(key)!r}, want {value!r}")


# DLLs that every 64-bit Windows has; anything else (Qt5Core.dll, libstdc++-6.dll,
# libwinpthread-1.dll, libcrypto-3-x64.dll...) would have to be shipped beside the executable.
SYSTEM_DLLS = {
    "advapi32.dll", "bcrypt.dll", "comdlg32.dll", "crypt32.dll", "dnsapi.dll", "dwmapi.dll",
    "gdi32.dll", "imm32.dll", "iphlpapi.dll", "kernel32.dll", "mpr.dll", "msvcrt.dll",
    "netapi32.dll", "ole32.dll", "oleaut32.dll", "secur32.dll", "setupapi.dll", "shell32.dll",
    "shlwapi.dll", "user32.dll", "userenv.dll", "uxtheme.dll", "version.dll", "winmm.dll",
    "winspool.drv", "ws2_32.dll", "wtsapi32.dll",
}


def check_image(pe):
    check(pe.FILE_HEADER.Machine == pefile.MACHINE_TYPE["IMAGE_FILE_MACHINE_AMD64"], "not an x64 image")
    check(pe.OPTIONAL_HEADER.Subsystem == pefile.SUBSYSTEM_TYPE["IMAGE_SUBSYSTEM_WINDOWS_GUI"],
          f"subsystem {pe.OPTIONAL_HEADER.Subsystem}, want 2 (Windows GUI)")
    imports = sorted(e.dll.decode().lower() for e in getattr(pe, "DIRECTORY_ENTRY_IMPORT", []))
    check(imports, "no import table")
    foreign = [dll for dll in imports if dll not in SYSTEM_DLLS]
    check(not foreign, f"imports DLLs that Windows does not have: {foreign}")
    print("imports:", " ".join(imports))


def main():
    if sys.argv[1] == "--exe":
        pe = pefile.PE(sys.argv[2])
        check_image(pe)
    else:
        rc_path, work = sys.argv[1], sys.argv[2]
        os.makedirs(work, exist_ok=True)
        pe = pefile.PE(build_stub(rc_path, work))
    check_icons(pe)
    check_manifest(pe)
    check_version(pe)
    for failure in failures:
        print("FAIL:", failure)
    print("resources ok" if not failures else f"{len(failures)} resource checks failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
