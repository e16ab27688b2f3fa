#!/usr/bin/env python3
"""Makes a tools image, windows.iso: an ISO-9660 image with Joliet names and without Rock Ridge.

  make_image.py OUT.iso --setup SETUP.EXE [--package MSI] [--set KEY=VALUE ...] [--bare]

--set writes setup.ini, which makes setup.exe behave otherwise than it does in earnest; see sim/sample/setup.cpp for
its keys. --bare leaves out the folders that are there only to be extracted. The same arguments give the same image,
byte for byte.
"""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

TIME = "2010010100000000"
DEEP = "drivers/storage/x64/windows/release/signed/catalog/2010/january"
TEXTS = {
    "autorun.inf": "[autorun]\r\nopen=setup.exe\r\n",
    "Read me first.txt": "Run setup.exe to install Ravlin Tools.\r\n",
    "docs/de/Lies mich zuerst – Übersicht.txt": "Zum Installieren setup.exe starten.\r\n",
    "docs/ja/はじめにお読みください.txt": "setup.exe を実行してください。\r\n",
    "docs/zh/自述文件.txt": "请运行 setup.exe。\r\n",
    "docs/ru/Прочти меня.txt": "Запустите setup.exe.\r\n",
    # 64 characters is the longest that Joliet promises.
    "docs/en/" + "A name as long as a name can be ".ljust(60, "x") + ".txt": "Long.\r\n",
    "docs/en/empty.txt": "",
    "docs/en/no extension": "None.\r\n",
    f"{DEEP}/driver.inf": "[Version]\r\nSignature=$WINDOWS NT$\r\n",
    f"{DEEP}/драйвер.cat": "x" * 2048,  # exactly a sector
    f"{DEEP}/empty/folder": None,
}


def write_texts(root):
    for name, text in TEXTS.items():
        path = root / name
        if text is None:
            path.mkdir(parents=True)
        else:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(text.encode())


def fill(root, arguments):
    shutil.copyfile(arguments.setup, root / "setup.exe")
    if arguments.package:
        shutil.copyfile(arguments.package, root / "Ravlin Tools.msi")
    if arguments.set:
        (root / "setup.ini").write_text("\r\n".join(["[Setup]", *arguments.set, ""]), newline="")
    if not arguments.bare:
        write_texts(root)


def make(arguments):
    out = arguments.out.resolve()
    env = {**os.environ, "LC_ALL": "C.UTF-8"}  # xorriso takes file names as the locale says
    with tempfile.TemporaryDirectory(dir=out.parent) as name:
        root = pathlib.Path(name) / "root"
        root.mkdir()
        fill(root, arguments)
        image = pathlib.Path(name) / "windows.iso"
        made = subprocess.run(
            ["xorriso", "-report_about", "SORRY", "-as", "mkisofs", "--norock", "-J", "-joliet-long", "-D",
             "-iso-level", "3", "-V", "RAVLIN TOOLS", "-no-pad", f"--modification-date={TIME}",
             "--set_all_file_dates", TIME, "-o", image, root],
            env=env, stderr=subprocess.PIPE, text=True, check=False)
        if made.returncode != 0:
            sys.exit(made.stderr)
        image.rename(out)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("out", type=pathlib.Path)
    parser.add_argument("--setup", type=pathlib.Path, required=True)
    parser.add_argument("--package", type=pathlib.Path)
    parser.add_argument("--set", action="append", metavar="KEY=VALUE")
    parser.add_argument("--bare", action="store_true")
    make(parser.parse_args())


if __name__ == "__main__":
    main()
