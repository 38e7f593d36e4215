#!/usr/bin/env python3
"""Writes the notices and the bill of materials of a package: notices.py linux|windows FOLDER --dependencies DEPENDENCIES

Into FOLDER: THIRD-PARTY-NOTICES.txt, the licences of the others' code that is inside of what the package brings, as the
sources and packages that it was built from state them; and xfer.spdx.json, an SPDX list of that code and of what is
loaded beside it, with versions.  DEPENDENCIES is what scripts/windows-deps prints; SOURCE_DATE_EPOCH and XFER_COMMIT in
the environment tell the time and the commit.
"""
import argparse
import datetime
import json
import os
import pathlib
import re
import subprocess
import sys
import uuid

TOP = pathlib.Path(__file__).resolve().parent.parent.parent
DOCUMENTS = pathlib.Path("/usr/share/doc")
COMMON_LICENCES = pathlib.Path("/usr/share/common-licenses")


class Part:
    """Code of others.  licence: an SPDX expression; texts: files that state it; in_package: whether it is inside."""

    def __init__(self, name, source, version, licence, texts, where):
        self.name, self.source, self.version, self.licence = name, source, version, licence
        self.texts, self.where = texts, where

    @property
    def in_package(self):
        return bool(self.texts)


def query(package, field):
    return subprocess.run(["dpkg-query", "-W", "-f", "${" + field + "}", package], check=True, capture_output=True,
                          text=True).stdout


def installed(name, package, licence, where, *more_texts):
    """What an installed package of the distribution brings."""
    return Part(name, query(package, "source:Package"), query(package, "source:Version"), licence,
                [DOCUMENTS / package / "copyright", *more_texts], where)


def cross_built(name, folder, licence, where):
    """What scripts/windows-deps has built."""
    return Part(name, folder.name, (folder / "version").read_text().strip(), licence, [folder / "licence"], where)


def beside(name, package, licence):
    """What is not in the package, but loaded by what is in it."""
    return Part(name, query(package, "source:Package"), query(package, "source:Version"), licence, [], "")


def parts_of(system, dependencies):
    cli11 = installed("CLI11", "libcli11-dev", "BSD-3-Clause", "xfer-get")
    if system == "linux":
        return [cli11, beside("libcurl", "libcurl4", "curl"), beside("OpenSSL", "libssl3", "Apache-2.0"),
                beside("C library", "libc6", "LGPL-2.1-or-later"),
                beside("C++ library", "libstdc++6", "GPL-3.0-or-later WITH GCC-exception-3.1")]
    notices, images = dependencies / "notices", "xfer.dll"
    every_image = "xfer.dll, keel.dll and xfer-get.exe"
    return [
        cross_built("libcurl", notices / "curl", "curl", images),
        cross_built("OpenSSL", notices / "openssl", "Apache-2.0", "xfer.dll and xfer-get.exe"),
        cross_built("nghttp2", notices / "nghttp2", "MIT", images),
        installed("zlib", "libz-mingw-w64-dev", "Zlib", images),
        installed("run-time libraries of GCC", "gcc-mingw-w64-x86-64-posix-runtime",
                  "GPL-3.0-or-later WITH GCC-exception-3.1", every_image, COMMON_LICENCES / "GPL-3"),
        installed("run-time libraries of MinGW-w64", "mingw-w64-x86-64-dev", "NOASSERTION", every_image),
        cli11,
    ]


def notices_text(parts):
    text = ["What is in this package besides xfer itself.\n"]
    for part in (part for part in parts if part.in_package):
        title = f"{part.name} {part.version}, in {part.where}"
        text.append(f"{'=' * len(title)}\n{title}\n{'=' * len(title)}\n")
        text += [path.read_text(encoding="utf-8").strip("\n") + "\n" for path in part.texts]
    return "\n".join(text)


def xfer_version():
    header = (TOP / "modules/xfer/include/xfer/version.h").read_text()
    return ".".join(re.search(rf"#define XFER_VERSION_{part} (\d+)", header).group(1) for part in ("MAJOR", "MINOR", "PATCH"))


def package_record(identifier, name, version, licence, supplier):
    return {
        "SPDXID": identifier, "name": name, "versionInfo": version, "supplier": supplier,
        "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
        "licenseDeclared": licence, "copyrightText": "NOASSERTION",
    }


def bill(system, parts):
    version, commit = xfer_version(), os.environ.get("XFER_COMMIT", "")
    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    own = package_record("SPDXRef-xfer", "xfer", version, "NOASSERTION", "NOASSERTION")
    if commit:
        own["sourceInfo"] = f"commit {commit}"
    packages = [own]
    relationships = [("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-xfer")]
    for part in parts:
        identifier = "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]+", "-", part.source)
        record = package_record(identifier, part.name, part.version, part.licence, "Organization: Debian")
        record["externalRefs"] = [{
            "referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
            "referenceLocator": f"pkg:deb/debian/{part.source}@{part.version.replace('+', '%2B')}?arch=source",
        }]
        packages.append(record)
        relationships.append(("SPDXRef-xfer", "STATIC_LINK" if part.in_package else "DYNAMIC_LINK", identifier))
    document = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"xfer-{version}-{system}",
        "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: xfer-scripts-package"]},
        "packages": packages,
        "relationships": [{"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}
                          for one, kind, other in relationships],
    }
    # Unique, and the same for the same contents.
    document["documentNamespace"] = uuid.uuid5(uuid.NAMESPACE_URL, json.dumps(document, sort_keys=True)).urn
    return json.dumps(document, indent=2) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("system", choices=("linux", "windows"))
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--dependencies", type=pathlib.Path)
    args = parser.parse_args()
    parts = parts_of(args.system, args.dependencies)
    args.folder.mkdir(parents=True, exist_ok=True)
    (args.folder / "THIRD-PARTY-NOTICES.txt").write_text(notices_text(parts), encoding="utf-8")
    (args.folder / "xfer.spdx.json").write_text(bill(args.system, parts), encoding="utf-8")
    return 0


sys.exit(main())
