"""What a bill of materials has to be: SPDX 2.3, about the very files of the package, with every library that is needed."""

import hashlib
import re

# Names of SPDX, with what may stand between them.
_LICENCE = re.compile(r"[A-Za-z0-9.+-]+(?: (?:WITH|AND|OR) [A-Za-z0-9.+-]+)*")
_KNOWN_LICENCES = {"Apache-2.0", "GCC-exception-3.1", "GPL-3.0-or-later", "LGPL-2.1-or-later", "MIT",
                   "X11-distribute-modifications-variant", "ZPL-2.1"}
_DOCUMENT_FIELDS = {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT"}
_PACKAGE_FIELDS = ("SPDXID", "name", "versionInfo", "downloadLocation", "licenseConcluded", "licenseDeclared", "copyrightText",
                   "supplier")


def problems(bill, files, libraries):
    """What is wrong with a bill, a list of sentences.

    `files` maps the names of the package's files (as in the package, beginning with "./") to their bytes; `libraries` are
    names of libraries, each of which some package has to be about, or to be loaded as.
    """
    return [*_document(bill), *_packages(bill), *_files(bill, files), *_relations(bill), *_libraries(bill, libraries)]


def _document(bill):
    for field, value in _DOCUMENT_FIELDS.items():
        if bill.get(field) != value:
            yield f"{field} is {bill.get(field)!r}"
    if not re.fullmatch(r"urn:uuid:[0-9a-f-]{36}", bill.get("documentNamespace", "")):
        yield f"documentNamespace is {bill.get('documentNamespace')!r}"
    if not re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", bill.get("creationInfo", {}).get("created", "")):
        yield "it has no date"
    if not bill.get("name") or not bill.get("creationInfo", {}).get("creators"):
        yield "it has no name, or nobody has made it"
    ids = [each["SPDXID"] for each in (bill, *bill["packages"], *bill["files"])]
    if len(set(ids)) != len(ids):
        yield "an SPDXID is there twice"
    for each in ids:
        if not re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", each):
            yield f"{each} is no SPDXID"


def _packages(bill):
    for package in bill["packages"]:
        for field in _PACKAGE_FIELDS:
            if not package.get(field):
                yield f"{package.get('name')} has no {field}"
        licence = package.get("licenseDeclared", "")
        if not _LICENCE.fullmatch(licence) or not set(re.split(" (?:WITH|AND|OR) ", licence)) <= _KNOWN_LICENCES:
            yield f"the licence of {package.get('name')}: {licence!r}"


def _files(bill, files):
    own = bill["packages"][0]
    sums = []
    named = {file["fileName"]: file for file in bill["files"]}
    left_out = own["packageVerificationCode"]["packageVerificationCodeExcludedFiles"]
    if set(named) != set(files) - set(left_out) or len(left_out) != 1 or left_out[0] not in files:
        yield f"only one of the bill and the package has {sorted(set(named) ^ set(files))}"
        return
    for name, file in named.items():
        checksums = {each["algorithm"]: each["checksumValue"] for each in file["checksums"]}
        wanted = {kind: hashlib.new(kind, files[name]).hexdigest() for kind in ("sha1", "sha256")}
        if checksums != {kind.upper(): value for kind, value in wanted.items()}:
            yield f"the checksums of {name} are wrong"
        sums.append(wanted["sha1"])
    code = hashlib.sha1("".join(sorted(sums)).encode("ascii")).hexdigest()
    if own["packageVerificationCode"]["packageVerificationCodeValue"] != code:
        yield "the verification code is wrong"


def _relations(bill):
    found = {(each["spdxElementId"], each["relationshipType"], each["relatedSpdxElement"]) for each in bill["relationships"]}
    own, *libraries = (package["SPDXID"] for package in bill["packages"])
    wanted = {("SPDXRef-DOCUMENT", "DESCRIBES", own)}
    wanted |= {(own, "DEPENDS_ON", library) for library in libraries}
    wanted |= {(own, "CONTAINS", file["SPDXID"]) for file in bill["files"]}
    for missing in sorted(wanted - found):
        yield f"the relation {' '.join(missing)} is missing"
    known = {bill["SPDXID"], own, *libraries, *(file["SPDXID"] for file in bill["files"])}
    for whose, _, to in found:
        if not {whose, to} <= known:
            yield f"a relation of something unknown: {whose}, {to}"


def _libraries(bill, libraries):
    about = {package["name"] for package in bill["packages"][1:]}
    for package in bill["packages"][1:]:
        about.update(package.get("comment", "").removeprefix("loaded as ").split(", "))
    for missing in sorted(set(libraries) - about):
        yield f"nothing about {missing}"
