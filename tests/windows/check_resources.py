#!/usr/bin/python3
"""The resources of updater.exe, read back with pefile: the icon group IDI_ICON1 (PNG images of
16 to 256 pixels), the asInvoker manifest with common controls 6, the version block.
  check_resources.py <updater.rc> <work dir>  compiles the script with MinGW's windres into a stub
  check_resources.py --exe <updater.exe>      a built updater.exe, also a 64-bit GUI image that
                                              imports from Windows' own DLLs only"""
import os
import struct
import subprocess
import sys

import pefile

# DLLs that every 64-bit Windows has; any other would have to be shipped beside the executable.
SYSTEM_DLLS = set("""advapi32 bcrypt comdlg32 crypt32 dnsapi dwmapi gdi32 imm32 iphlpapi kernel32 mpr msvcrt netapi32
    ole32 oleaut32 secur32 setupapi shell32 shlwapi user32 userenv uxtheme version winmm winspool.drv ws2_32 wtsapi32""".split())
MANIFEST = ['level="asInvoker"', 'uiAccess="false"', 'name="Microsoft.Windows.Common-Controls"', 'version="6.0.0.0"']


def resources(pe, type_id):
    """{name or id: data of its first language} of one resource type."""
    entries = [e for e in pe.DIRECTORY_ENTRY_RESOURCE.entries if e.id == type_id]
    return {str(i.name) if i.name else i.id: pe.get_data(i.directory.entries[0].data.struct.OffsetToData,
                                                         i.directory.entries[0].data.struct.Size)
            for e in entries for i in e.directory.entries}


def found(pe):
    groups, icons = resources(pe, pefile.RESOURCE_TYPE["RT_GROUP_ICON"]), resources(pe, pefile.RESOURCE_TYPE["RT_ICON"])
    group = groups.get("IDI_ICON1", b"\0" * 6)
    entries = [struct.unpack_from("<B11xH", group, 6 + 14 * i) for i in range(struct.unpack_from("<H", group, 4)[0])]
    manifest = resources(pe, pefile.RESOURCE_TYPE["RT_MANIFEST"]).get(1, b"").decode()
    fixed = pe.VS_FIXEDFILEINFO[0]
    strings = {k.decode(): v.decode() for info in pe.FileInfo[0] if info.Key == b"StringFileInfo"
               for table in info.StringTable for k, v in table.entries.items()}
    return {"icon groups": list(groups),
            "icons": sorted((icons[n][:8], struct.unpack(">II", icons[n][16:24]), w or 256) for w, n in entries),
            "manifest": [text for text in MANIFEST if text in manifest],
            "versions": [f"{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}.{ls & 0xFFFF}" for ms, ls in [
                (fixed.FileVersionMS, fixed.FileVersionLS), (fixed.ProductVersionMS, fixed.ProductVersionLS)]],
            "strings": {k: strings.get(k) for k in ("FileVersion", "ProductVersion", "OriginalFilename", "ProductName")}}


WANTED = {"icon groups": ["IDI_ICON1"], "icons": [(b"\x89PNG\r\n\x1a\n", (n, n), n) for n in (16, 24, 32, 48, 64, 128, 256)],
          "manifest": MANIFEST, "versions": ["5.0.153.0"] * 2,
          "strings": {"FileVersion": "5.0.153.0", "ProductVersion": "5.0.153.0", "OriginalFilename": "updater.exe",
                      "ProductName": "updater"}}

if sys.argv[1] == "--exe":
    pe = pefile.PE(sys.argv[2])
    imports = sorted(e.dll.decode().lower().removesuffix(".dll") for e in pe.DIRECTORY_ENTRY_IMPORT)
    print("imports:", " ".join(imports))
    WANTED.update(machine="AMD64 GUI", foreign=[])
    have = {"machine": f"{pefile.MACHINE_TYPE[pe.FILE_HEADER.Machine][19:]} {pe.OPTIONAL_HEADER.Subsystem == 2 and 'GUI'}",
            "foreign": [dll for dll in imports if dll not in SYSTEM_DLLS]}
else:
    work = sys.argv[2]
    os.makedirs(work, exist_ok=True)
    with open(f"{work}/stub.cpp", "w") as f:
        f.write("int main() { return 0; }\n")
    subprocess.run(["x86_64-w64-mingw32-windres", sys.argv[1], "-O", "coff", "-o", f"{work}/res.o"], check=True)
    subprocess.run(["x86_64-w64-mingw32-g++", "-static", "-mwindows", f"{work}/stub.cpp", f"{work}/res.o", "-o",
                    f"{work}/stub.exe"], check=True)
    pe, have = pefile.PE(f"{work}/stub.exe"), {}
have.update(found(pe))
failures = [f"FAIL: {key}: {have[key]!r}, want {WANTED[key]!r}" for key in WANTED if have[key] != WANTED[key]]
print("\n".join(failures + [f"{len(failures)} resource checks failed"]))
sys.exit(1 if failures else 0)
