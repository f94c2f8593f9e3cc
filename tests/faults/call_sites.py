"""Finds every call by which a library enters the kernel, in the library file itself."""

import pathlib
import re
import subprocess
from dataclasses import dataclass, field

import faults_table

INSTRUCTION = re.compile(r"^\s*([0-9a-f]+):\t((?:[0-9a-f]{2} )+)\s*\t?(.*)$")
TARGET = re.compile(r"^(?:addr32 )?(call|jmp)\s.*<([^>@+]+)(?:@[^>]*)?>")
CONSTANT = re.compile(r"^mov\s+\$0x([0-9a-f]+),%[er](di|si|dx)$")
# Parts of the C library that are linked into each library, and only jump to their namesake.
LINKED_IN = {"__pthread_atfork": "__register_atfork"}
SELECTOR_REGISTER = {"syscall": "di", "fcntl": "si", "getsockopt": "dx", "setsockopt": "dx"}


class Unknown(Exception):
    """A call that the table says nothing about."""


@dataclass
class Site:
    library: str
    call: str
    returns_to: int
    selector: int = -1
    functions: list = field(default_factory=list)  # innermost first, with those inlined
    line: str = ""  # file:line

    @property
    def place(self):
        return f"{self.library}+{self.returns_to:x}"

    @property
    def key(self):
        """As in faults_table.FAULTS."""
        name = faults_table.selector_name(self.call, self.selector)
        return f"{self.call}:{name}" if name else self.call

    def __str__(self):
        name = faults_table.selector_name(self.call, self.selector)
        operation = f"{self.call}({name})" if name else self.call
        where = self.functions[-1] if self.functions else "?"
        return f"{operation} in {where} at {self.line}"


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def imports_of(library):
    lines = output_of("nm", "-D", "--undefined-only", str(library)).splitlines()
    return {line.split()[-1].split("@")[0] for line in lines}


def exports_of(library):
    lines = output_of("nm", "-D", "--defined-only", str(library)).splitlines()
    return {line.split()[-1].split("@")[0] for line in lines}


def unknown_imports(imports):
    known = faults_table.calls() | {key.split(":")[0] for key in faults_table.CANNOT_FAIL}
    return sorted(
        name
        for name in imports - known - faults_table.PURE
        if not name.startswith(faults_table.PURE_PREFIXES)
    )


def sites_in(disassembly, library, wanted):
    """The calls of the functions in `wanted`. One that is made by a jump, or whose selector cannot
    be seen, is an error: nobody could tell it from others."""
    sites = []
    constants = {}  # the numbers last loaded into the registers that carry arguments
    in_stub = False  # through which every call of one function goes
    for line in disassembly.splitlines():
        if line.endswith(">:"):
            in_stub = line.endswith("@plt>:") or line.split("<")[-1][:-2] in LINKED_IN
            constants = {}
        instruction = INSTRUCTION.match(line)
        if not instruction or in_stub:
            continue
        address = int(instruction[1], 16)
        code = instruction[2].split()
        text = instruction[3].strip()
        constant = CONSTANT.match(text)
        if constant:
            constants[constant[2]] = int(constant[1], 16)
        target = TARGET.match(text)
        call = LINKED_IN.get(target[2], target[2]) if target else ""
        if call in wanted:
            place = f"{library}+{address:x}"
            if target[1] == "jmp":
                raise Unknown(f"{place}: jumps to {call} instead of calling it")
            selector = selector_of(call, constants, place)
            sites.append(Site(library, call, address + len(code), selector))
        if " call" in f" {text}":
            constants = {}
    return sites


def selector_of(call, constants, place):
    if call not in SELECTOR_REGISTER:
        return -1
    number = constants.get(SELECTOR_REGISTER[call], -1)
    if faults_table.selector_name(call, number) is None:
        raise Unknown(f"{place}: {call} with an operation that the table does not know ({number})")
    return number


def name_places(sites, path):
    """Asks the debugging information, if there is any, where the calls stand."""
    for site in sites:
        # One byte back lies inside the call itself.
        address = hex(site.returns_to - 1)
        lines = output_of("addr2line", "-fCie", str(path), address).splitlines()
        site.functions = [plain_name(name) for name in lines[0::2]]
        for location in lines[1::2]:
            file, _, number = location.split(" ")[0].rpartition(":")
            name = pathlib.Path(file).name
            # Where the helper was used, rather than the helper itself.
            if name.endswith(".cpp") or not site.line:
                site.line = f"{name}:{number}"
            if name.endswith(".cpp"):
                break


def plain_name(function):
    """Without scopes, arguments and the compiler's marks."""
    return re.split(r"[\[(]", function.replace("(anonymous namespace)", ""))[0].split("::")[-1]


def call_sites(path):
    """All calls of one library that can suffer something."""
    unknown = unknown_imports(imports_of(path))
    if unknown:
        raise Unknown(
            f"{path} calls what faults_table.py does not know: {', '.join(unknown)}; say there "
            "what each can suffer"
        )
    wanted = imports_of(path) & faults_table.calls()
    disassembly = output_of("objdump", "--disassemble", "--wide", str(path))
    sites = sites_in(disassembly, path.name, wanted)
    unseen = wanted - {site.call for site in sites}
    if unseen:
        raise Unknown(f"{path} imports {', '.join(sorted(unseen))} but no call of it was found")
    name_places(sites, path)
    return sites
