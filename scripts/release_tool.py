#!/usr/bin/env python3
"""The release's bill of materials and the checks of its archive (scripts/release).

  release_tool.py sbom --version V --dll DLL --build DIR --source DIR --signing test|vendor --out FILE
  release_tool.py verify --zip ZIP --version V --def DEF --ca ROOT [--tsa-ca ROOT] [--vendor]

`sbom` names the DLL, every Debian package whose files were compiled or
linked into it (the link map and Ninja's header dependencies, mapped through
dpkg), and the neighbours the plug-in loads at run time. `verify` unpacks the
archive and fails, listing each property that is off.
"""
import argparse
import datetime
import hashlib
import json
import os
import re
import struct
import subprocess
import sys
import tempfile
import uuid
import zipfile
import zlib

DLL = "zephExt_TarnClient.dll"
DEBUG = DLL + ".debug"
SBOM = "zephExt_TarnClient.spdx.json"
SUMS = "SHA256SUMS"
SUPPLIER = "Organization: Quorvane, Inc."

# Windows' own DLLs, the only ones the plug-in may import from.
SYSTEM_DLLS = {"advapi32.dll", "crypt32.dll", "kernel32.dll", "msvcrt.dll", "shlwapi.dll",
               "version.dll", "wintrust.dll"}
HIGH_ENTROPY_VA, DYNAMIC_BASE, NX_COMPAT = 0x0020, 0x0040, 0x0100

# What a file compiled or linked in belongs to, by its path; the first match wins.
COMPONENTS = [
    ("RapidJSON", r"/rapidjson/"),
    ("winpthreads", r"/lib(win)?pthread\.a$|/include/(pthread\w*|sched|semaphore)\.h$"),
    ("libssp", r"/libssp(_nonshared)?\.a$|/include/ssp/"),
    ("libstdc++", r"/libstdc\+\+\.a$|/libsupc\+\+\.a$|/include/c\+\+/"),
    ("libgcc", r"/libgcc(_eh)?\.a$|/crt(begin|end)\.o$|/lib/gcc/x86_64-w64-mingw32/[^/]+/include"),
    ("mingw-w64 runtime", r"/x86_64-w64-mingw32/(lib|include)/|/mingw-w64/include/"),
]
REQUIRED_COMPONENTS = ["RapidJSON", "mingw-w64 runtime", "libstdc++", "libgcc", "winpthreads"]

# Loaded with LoadLibrary from the parent product's folder; never shipped with the plug-in.
NEIGHBOURS = [
    ("zlibwapi.dll", "The archive library (zlib with minizip's unz functions), bound at run time "
                     "after its signer is checked; the plug-in takes only its types from zlib's headers."),
    ("Qvsock_64x.dll", "The parent product's HTTP client library (qvSendHttpToCRVLServer2), "
                       "bound at run time."),
    ("zephAgent_64x.dll", "The host library (zephCnt_ functions; zephAgent_NA_64x.dll the "
                          "alternate name), bound at run time."),
    ("qvnotify.dll", "The event-notification library, bound at run time after its signer is checked."),
]


def sha256(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def spdx_id(kind, name):
    return "SPDXRef-%s-%s" % (kind, re.sub(r"[^A-Za-z0-9.]+", "-", name.replace("+", "x")).strip("-"))


# ---------------------------------------------------------------- bill of materials

def spdx_package(kind, name, supplier, comment, **fields):
    """A package element with what SPDX requires and nothing concluded about licences."""
    package = {"SPDXID": spdx_id(kind, name), "name": name, "supplier": supplier,
               "downloadLocation": "NOASSERTION", "filesAnalyzed": False}
    package.update(fields)
    package.update({"comment": comment, "licenseConcluded": "NOASSERTION",
                    "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION",
                    "primaryPackagePurpose": "LIBRARY"})
    return package


def linked_files(map_path):
    """What the link took code from: archives with a member pulled in, and
    object files loaded directly."""
    files = set()
    with open(map_path, encoding="utf-8", errors="replace") as f:
        for line in f:
            member = re.match(r"^(\S+\.a)\([^)]+\)", line)
            loaded = re.match(r"^LOAD (\S+\.o)$", line.rstrip("\n"))
            if member or loaded:
                files.add((member or loaded).group(1))
    return files


def compiled_headers(build):
    """Every file Ninja recorded as a compile dependency in the build folder."""
    out = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, capture_output=True,
                         text=True).stdout
    return {line.strip() for line in out.splitlines() if line.startswith(" ")}


def outside_project(paths, source, build):
    """The paths that are not the project's own: the build folder's links to
    system headers are followed, sources (and .deps) are ours."""
    source, build = os.path.abspath(source), os.path.abspath(build)
    result = set()
    for path in paths:
        path = os.path.normpath(path if os.path.isabs(path) else os.path.join(build, path))
        if path.startswith(build + os.sep):
            path = os.path.realpath(path)
        if not path.startswith(source + os.sep) and not path.startswith(build + os.sep):
            result.add(path)
    return result


def owning_packages(paths):
    """{path: Debian package} through dpkg -S; a path no package owns is an error."""
    owners = {}
    pending = sorted(paths)
    for attempt in (lambda p: p, os.path.realpath):
        if not pending:
            break
        asked = {attempt(p): p for p in pending}
        out = subprocess.run(["dpkg", "-S", *asked], capture_output=True, text=True).stdout
        for line in out.splitlines():
            package, _, path = line.partition(": ")
            if path in asked and not line.startswith("diversion"):
                owners[asked[path]] = package.split(",")[0].strip()
        pending = [p for p in pending if p not in owners]
    if pending:
        sys.exit("release_tool: no Debian package owns %s" % ", ".join(pending[:5]))
    return owners


def package_versions(packages):
    out = subprocess.run(["dpkg-query", "-W", "-f", "${Package}\t${Version}\t${Architecture}\n",
                          *sorted(packages)], check=True, capture_output=True, text=True).stdout
    return {name: (version, arch) for name, version, arch in
            (line.split("\t") for line in out.splitlines())}


def component_of(path, package):
    for name, pattern in COMPONENTS:
        if re.search(pattern, path):
            return name
    return package


def component_packages(owners):
    """{component: {Debian package: [files]}}."""
    components = {}
    for path, package in owners.items():
        package = package.split(":")[0]
        components.setdefault(component_of(path, package), {}).setdefault(package, []).append(path)
    return components


def purl(package, version, arch):
    quote = lambda text: re.sub(r"[^A-Za-z0-9.\-_~]", lambda m: "%%%02X" % ord(m.group()), text)
    return "pkg:deb/debian/%s@%s?arch=%s" % (quote(package), quote(version), arch)


def component_package(name, packages, versions, linked):
    archives = sorted({os.path.basename(f) for files in packages.values() for f in files
                       if f in linked})
    headers = sum(1 for files in packages.values() for f in files if f not in linked)
    what = (["linked in from " + ", ".join(archives)] if archives else []) + \
        (["%d headers compiled in" % headers] if headers else [])
    return spdx_package(
        "Package", name, "Organization: Debian", "; ".join(what),
        versionInfo=" / ".join(sorted({versions[p][0] for p in packages})),
        sourceInfo="Debian package%s on the build machine: %s" % (
            "s" if len(packages) > 1 else "",
            ", ".join("%s %s" % (p, versions[p][0]) for p in sorted(packages))),
        externalRefs=[{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                       "referenceLocator": purl(p, *versions[p])} for p in sorted(packages)])


def linked_components(build, source):
    """The packages of what was compiled or linked into the DLL, one per component."""
    linked = outside_project(linked_files(os.path.join(build, "bin", DLL + ".map")), source, build)
    headers = outside_project(compiled_headers(build), source, build)
    components = component_packages(owning_packages(linked | headers))
    versions = package_versions({p for packages in components.values() for p in packages})
    return [component_package(c, components[c], versions, linked)
            for c in sorted(components, key=str.lower)]


def make_sbom(args):
    dll_sha256 = sha256(args.dll)
    plugin = spdx_package(
        "Package", "zephExt_TarnClient", SUPPLIER,
        "Windows x86-64 plug-in DLL of the Zeph host agent framework that manages the Tarn "
        "Agent; Authenticode-signed, its debug information in " + DEBUG + ".",
        versionInfo=args.version, packageFileName=DLL,
        checksums=[{"algorithm": "SHA256", "checksumValue": dll_sha256}])
    linked = linked_components(args.build, args.source)
    neighbours = [spdx_package("Runtime", file, "NOASSERTION",
                               comment + " Not part of this package: the parent product ships it.")
                  for file, comment in NEIGHBOURS]
    relation = lambda kind, other, **extra: dict(
        spdxElementId=plugin["SPDXID"], relationshipType=kind, relatedSpdxElement=other["SPDXID"], **extra)
    relationships = [{"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
                      "relatedSpdxElement": plugin["SPDXID"]}]
    relationships += [relation("STATIC_LINK", p) for p in linked]
    relationships += [relation("DEPENDS_ON", p, comment="loaded at run time, not part of this package")
                      for p in neighbours]
    signing = ("Signed with the throw-away test PKI: for testing only, not for shipping."
               if args.signing == "test" else "Signed with the vendor's certificate.")
    name = "zephExt_TarnClient-%s-win-x64" % args.version
    document = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": name,
        "documentNamespace": "https://spdx.org/spdxdocs/%s-%s" % (
            name, uuid.uuid5(uuid.NAMESPACE_URL, "sha256:" + dll_sha256)),
        "creationInfo": {
            "created": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
            "creators": ["Tool: scripts/release", SUPPLIER],
            "comment": "Versions as the build machine's Debian packages report them. " + signing,
        },
        "packages": [plugin] + linked + neighbours,
        "relationships": relationships,
    }
    with open(args.out, "w", encoding="utf-8") as f:
        json.dump(document, f, indent=2)
        f.write("\n")


# ---------------------------------------------------------------- reading a PE file

class PeFile:
    """The parts of a PE32+ image that the checks read."""

    def __init__(self, data):
        self.data = data
        pe = struct.unpack_from("<I", data, 0x3C)[0]
        if data[pe:pe + 4] != b"PE\0\0":
            raise ValueError("not a PE file")
        (_, sections, _, symbols, nsymbols, optional_size, _) = struct.unpack_from("<HHIIIHH", data, pe + 4)
        optional = pe + 24
        if struct.unpack_from("<H", data, optional)[0] != 0x20B:
            raise ValueError("not PE32+")
        self.dll_characteristics = struct.unpack_from("<H", data, optional + 70)[0]
        count = struct.unpack_from("<I", data, optional + 108)[0]
        self.directories = [struct.unpack_from("<II", data, optional + 112 + 8 * i) for i in range(count)]
        strings = symbols + 18 * nsymbols
        self.sections = []
        for i in range(sections):
            at = optional + optional_size + 40 * i
            name = data[at:at + 8].rstrip(b"\0").decode("ascii", "replace")
            if name.startswith("/") and symbols:
                offset = strings + int(name[1:])
                name = data[offset:data.index(b"\0", offset)].decode("ascii", "replace")
            vsize, rva, raw_size, raw = struct.unpack_from("<IIII", data, at + 8)
            self.sections.append((name, rva, max(vsize, raw_size), raw, raw_size))

    def offset(self, rva):
        for _, start, size, raw, _ in self.sections:
            if start <= rva < start + size:
                return raw + rva - start
        raise ValueError("RVA %#x in no section" % rva)

    def cstring(self, rva):
        at = self.offset(rva)
        return self.data[at:self.data.index(b"\0", at)].decode("ascii", "replace")

    def section(self, name):
        for section_name, _, _, raw, raw_size in self.sections:
            if section_name == name:
                return self.data[raw:raw + raw_size]
        return None

    def exports(self):
        """(number of exported functions, their names)."""
        rva, size = self.directories[0]
        if not size:
            return 0, []
        at = self.offset(rva)
        functions, names, _, names_rva = struct.unpack_from("<IIII", self.data, at + 20)
        pointers = self.offset(names_rva)
        return functions, [self.cstring(struct.unpack_from("<I", self.data, pointers + 4 * i)[0])
                           for i in range(names)]

    def imports(self):
        rva, size = self.directories[1]
        dlls = []
        at = self.offset(rva) if size else None
        while at is not None:
            name_rva = struct.unpack_from("<I", self.data, at + 12)[0]
            if not name_rva:
                break
            dlls.append(self.cstring(name_rva))
            at += 20
        return dlls

    def resource(self, type_id):
        """The first resource of a numeric type (first name, first language)."""
        rva, size = self.directories[2]
        if not size:
            return None
        base = self.offset(rva)

        def entries(directory):
            named, ids = struct.unpack_from("<HH", self.data, base + directory + 12)
            return [struct.unpack_from("<II", self.data, base + directory + 16 + 8 * i)
                    for i in range(named + ids)]

        for name, target in entries(0):
            if name == type_id:
                while target & 0x80000000:
                    target = entries(target & 0x7FFFFFFF)[0][1]
                data_rva, data_size = struct.unpack_from("<II", self.data, base + target)
                at = self.offset(data_rva)
                return self.data[at:at + data_size]
        return None


def version_blocks(data, at=0):
    """One VS_VERSIONINFO block: (key, value, children)."""
    align = lambda n: (n + 3) & ~3
    length, value_length, text = struct.unpack_from("<HHH", data, at)
    end = at + length
    key_end = at + 6
    while data[key_end:key_end + 2] != b"\0\0":
        key_end += 2
    key = data[at + 6:key_end].decode("utf-16-le")
    value_at = align(key_end + 2)
    value_size = value_length * 2 if text else value_length
    value = data[value_at:value_at + value_size]
    if text:
        value = value.decode("utf-16-le").rstrip("\0")
    children, child = [], align(value_at + value_size)
    while child < end:
        block = version_blocks(data, child)
        children.append(block)
        child = align(child + struct.unpack_from("<H", data, child)[0])
    return key, value, children


def version_resource(pe):
    """(file version, product version, {string name: value}) of the version resource."""
    data = pe.resource(16)
    if data is None:
        return None
    _, fixed, children = version_blocks(data)
    signature, _, file_ms, file_ls, product_ms, product_ls = struct.unpack_from("<IIIIII", fixed)
    if signature != 0xFEEF04BD:
        return None
    dotted = lambda ms, ls: "%d.%d.%d.%d" % (ms >> 16, ms & 0xFFFF, ls >> 16, ls & 0xFFFF)
    strings = {key: value for block in children if block[0] == "StringFileInfo"
               for table in block[2] for key, value, _ in table[2]}
    return dotted(file_ms, file_ls), dotted(product_ms, product_ls), strings


# ---------------------------------------------------------------- checks

def def_exports(def_path):
    names, in_exports = [], False
    for line in open(def_path, encoding="utf-8"):
        line = line.split(";")[0].strip()
        if line.upper() == "EXPORTS":
            in_exports = True
        elif line and in_exports:
            names.append(line.split()[0])
    return names


def check_exports(pe, expected):
    functions, names = pe.exports()
    if functions != len(expected) or sorted(names) != sorted(expected):
        extra, missing = sorted(set(names) - set(expected)), sorted(set(expected) - set(names))
        return "exports: %d functions, extra %s, missing %s" % (functions, extra, missing)
    return None


def check_imports(pe):
    foreign = [dll for dll in pe.imports() if dll.lower() not in SYSTEM_DLLS]
    delayed = len(pe.directories) > 13 and pe.directories[13][1]
    if foreign or delayed:
        return "imports from DLLs not on the list of Windows DLLs: %s%s" % (
            foreign, " and delay-loaded imports" if delayed else "")
    return None


def check_characteristics(pe):
    wanted = {"HIGH_ENTROPY_VA": HIGH_ENTROPY_VA, "DYNAMIC_BASE": DYNAMIC_BASE, "NX_COMPAT": NX_COMPAT}
    missing = [name for name, bit in wanted.items() if not pe.dll_characteristics & bit]
    if not pe.directories[5][1]:
        missing.append("relocations (DYNAMIC_BASE needs them)")
    return "characteristics missing: %s" % ", ".join(missing) if missing else None


def check_debug(pe, debug_path):
    debug_sections = [s[0] for s in pe.sections if s[0].startswith((".debug", ".zdebug"))]
    if debug_sections:
        return "debug sections in the DLL: %s" % ", ".join(debug_sections)
    link = pe.section(".gnu_debuglink")
    if link is None:
        return "no debug link in the DLL"
    name = link[:link.index(b"\0")].decode("ascii", "replace")
    crc = struct.unpack_from("<I", link, (len(name) + 4) & ~3)[0]
    with open(debug_path, "rb") as f:
        debug = f.read()
    if name != DEBUG or crc != zlib.crc32(debug):
        return "the debug link names %s (CRC %08x), not %s (CRC %08x)" % (name, crc, DEBUG, zlib.crc32(debug))
    if not any(s[0] == ".debug_info" for s in PeFile(debug).sections):
        return "%s holds no .debug_info" % DEBUG
    return None


def check_signature(pe, dll_path, ca, tsa_ca, vendor):
    if not pe.directories[4][1]:
        return "the DLL carries no signature"
    command = ["osslsigncode", "verify", "-in", dll_path, "-CAfile", ca, "-ignore-cdp"]
    if tsa_ca:
        command += ["-TSA-CAfile", tsa_ca]
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        # Only the test PKI's errors are shown: a vendor's certificate stays out of the logs.
        errors = [line.strip() for line in (result.stdout + result.stderr).splitlines()
                  if re.search(r"error|failed", line, re.IGNORECASE)]
        detail = "" if vendor else ": " + " | ".join(errors)
        return "the signature does not verify against the signing root" + detail
    return None


def check_version(pe, version):
    found = version_resource(pe)
    if found is None:
        return "no version resource"
    file_version, product_version, strings = found
    seen = [file_version, product_version, strings.get("FileVersion"), strings.get("ProductVersion")]
    if any(v != version for v in seen):
        return "version resource %s, project version %s" % (seen, version)
    return None


def check_sums(folder, files):
    listed = {}
    for line in open(os.path.join(folder, SUMS), encoding="utf-8"):
        digest, _, name = line.rstrip("\n").partition("  ")
        listed[name] = digest
    expected = sorted(f for f in files if f != SUMS)
    if sorted(listed) != expected:
        return "SHA256SUMS lists %s, the archive holds %s" % (sorted(listed), expected)
    wrong = [name for name, digest in listed.items() if sha256(os.path.join(folder, name)) != digest]
    return "checksums do not match: %s" % ", ".join(wrong) if wrong else None


def document_problems(document):
    """The document-level fields SPDX 2.3 requires."""
    problems = ["%s is not %s" % (key, value) for key, value in
                [("spdxVersion", "SPDX-2.3"), ("dataLicense", "CC0-1.0"), ("SPDXID", "SPDXRef-DOCUMENT")]
                if document.get(key) != value]
    namespace = document.get("documentNamespace", "")
    if not document.get("name") or not re.match(r"^[a-z][a-z0-9+.-]*:", namespace):
        problems.append("name or documentNamespace missing")
    creation = document.get("creationInfo", {})
    if not re.match(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$", creation.get("created", "")) \
            or not creation.get("creators"):
        problems.append("creationInfo needs created and creators")
    return problems


def package_problems(document, version, dll_sha256):
    """Well-formed packages, the plug-in itself, what is linked in, the neighbours."""
    packages = document.get("packages", [])
    ids = [p.get("SPDXID", "") for p in packages]
    problems = []
    if len(set(ids)) != len(ids) or any(not re.match(r"^SPDXRef-[A-Za-z0-9.-]+$", i) for i in ids):
        problems.append("package SPDXIDs not unique or malformed")
    problems += ["package %s lacks name or downloadLocation" % p.get("SPDXID")
                 for p in packages if not p.get("name") or "downloadLocation" not in p]
    by_name = {p.get("name"): p for p in packages}
    plugin = by_name.get("zephExt_TarnClient", {})
    if plugin.get("versionInfo") != version or \
            plugin.get("checksums") != [{"algorithm": "SHA256", "checksumValue": dll_sha256}]:
        problems.append("the plug-in's package has not this version and the DLL's SHA-256")
    problems += ["no version for %s" % name for name in REQUIRED_COMPONENTS
                 if not by_name.get(name, {}).get("versionInfo")]
    problems += ["neighbour %s missing" % name for name, _ in NEIGHBOURS if name not in by_name]
    known = set(ids) | {"SPDXRef-DOCUMENT"}
    relationships = document.get("relationships", [])
    if any({r.get("spdxElementId"), r.get("relatedSpdxElement")} - known for r in relationships):
        problems.append("a relationship names an unknown element")
    if {"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
            "relatedSpdxElement": plugin.get("SPDXID")} not in relationships:
        problems.append("the document does not describe the plug-in")
    return problems


def check_sbom(folder, version):
    try:
        with open(os.path.join(folder, SBOM), encoding="utf-8") as f:
            document = json.load(f)
    except ValueError as error:
        return "the SBOM is no JSON: %s" % error
    problems = document_problems(document) + \
        package_problems(document, version, sha256(os.path.join(folder, DLL)))
    return "SBOM: " + "; ".join(problems) if problems else None


def verify(args):
    with tempfile.TemporaryDirectory() as folder:
        with zipfile.ZipFile(args.zip) as archive:
            files = sorted(archive.namelist())
            if files != sorted([DLL, DEBUG, SUMS, SBOM]):
                sys.exit("release check: the archive holds %s" % files)
            archive.extractall(folder)
        dll = os.path.join(folder, DLL)
        with open(dll, "rb") as f:
            pe = PeFile(f.read())
        debug = os.path.join(folder, DEBUG)
        checks = [
            ("exports: exactly those of the .def file",
             lambda: check_exports(pe, def_exports(args.def_file))),
            ("imports: Windows' own DLLs only", lambda: check_imports(pe)),
            ("DYNAMIC_BASE, HIGH_ENTROPY_VA, NX_COMPAT", lambda: check_characteristics(pe)),
            ("no debug sections; debug link to " + DEBUG, lambda: check_debug(pe, debug)),
            ("signature verifies against the signing root",
             lambda: check_signature(pe, dll, args.ca, args.tsa_ca, args.vendor)),
            ("version resource " + args.version, lambda: check_version(pe, args.version)),
            ("SHA256SUMS", lambda: check_sums(folder, files)),
            ("SBOM: SPDX 2.3", lambda: check_sbom(folder, args.version)),
        ]
        failed = 0
        for title, check in checks:
            problem = check()
            print("  %-4s %s" % ("ok" if problem is None else "FAIL", problem or title))
            failed += problem is not None
        if failed:
            sys.exit("release check: %d of %d checks failed for %s" % (failed, len(checks), args.zip))


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    sbom = commands.add_parser("sbom")
    sbom.add_argument("--version", required=True)
    sbom.add_argument("--dll", required=True)
    sbom.add_argument("--build", required=True)
    sbom.add_argument("--source", required=True)
    sbom.add_argument("--signing", choices=["test", "vendor"], required=True)
    sbom.add_argument("--out", required=True)
    check = commands.add_parser("verify")
    check.add_argument("--zip", required=True)
    check.add_argument("--version", required=True)
    check.add_argument("--def", dest="def_file", required=True)
    check.add_argument("--ca", required=True)
    check.add_argument("--tsa-ca")
    check.add_argument("--vendor", action="store_true")
    args = parser.parse_args()
    make_sbom(args) if args.command == "sbom" else verify(args)


if __name__ == "__main__":
    main()
