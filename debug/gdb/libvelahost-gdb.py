"""gdb shows libvelahost's objects by what they mean, and `info velahost-timers` the timers.

gdb loads this file together with the library when it is installed where gdb looks, or by `source`.
It only reads memory, so a core file serves as well as a process. It needs the types' debug
information: the library's, or that of a program that was compiled with -femit-class-debug-always
(g++) or -fstandalone-debug (clang).
"""

import datetime
import errno
import json
import os
import re
import socket
import struct
import time

import gdb
import gdb.printing

MANAGER = "VelaHost_Ipc::IpcConnectionManager"
TIMER_QUEUE = "VelaHost_OS::TimerQueue"

# How gdb calls what it reads memory from.
LIVE = "native"
CORE = "core"


# Memory


def text_of(string):
    """The characters of a std::string, cut where gdb cuts strings, or of a C string."""
    if string.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
        return string.string(encoding="utf-8", errors="backslashreplace")
    size = int(string["_M_string_length"])
    limit = gdb.parameter("print elements")
    return string["_M_dataplus"]["_M_p"].string(
        encoding="utf-8",
        errors="backslashreplace",
        length=size if limit is None else min(limit, size),
    )


def quoted(string):
    return json.dumps(text_of(string), ensure_ascii=False)


# Programs often have the library's containers only declared. Their layout is fixed.


def vector_items(vector, item_type):
    """The items of a std::vector, which begins with the pointers to its first item and its end."""
    bounds = vector.address.cast(item_type.pointer().pointer())
    item, end = bounds[0], bounds[1]
    while item != end:
        yield item.dereference()
        item += 1


def tree_items(tree, first_type, second_type):
    """The pairs of a std::map or std::multimap, in order, as (first, second).

    A node is the links, then the pair, whose second is here always aligned as a pointer is.
    """
    header = tree["_M_t"]["_M_impl"]["_M_header"]
    word = gdb.lookup_type("void").pointer().sizeof
    first_size = -(-first_type.sizeof // word) * word
    node = header["_M_left"]
    for _ in range(tree_size(tree)):
        pair = int(node) + header.type.sizeof
        yield (
            gdb.Value(pair).cast(first_type.pointer()).dereference(),
            gdb.Value(pair + first_size).cast(second_type.pointer()).dereference(),
        )
        node = successor(node)


def tree_size(tree):
    return int(tree["_M_t"]["_M_impl"]["_M_node_count"])


def successor(node):
    if node["_M_right"] != 0:
        node = node["_M_right"]
        while node["_M_left"] != 0:
            node = node["_M_left"]
        return node
    parent = node["_M_parent"]
    while node == parent["_M_right"]:
        node, parent = parent, parent["_M_parent"]
    return parent


def class_name(pointer):
    """The class of the object at `pointer`, by the symbol of its table of virtual functions.

    That is there without debug information, too. Where it isn't, the class that `pointer` has.
    """
    table = pointer.cast(gdb.lookup_type("void").pointer().pointer()).dereference()
    symbol = gdb.execute(f"info symbol {int(table):#x}", to_string=True)
    named = re.match(r"vtable for (.*?)(?: \+ \d+)? in section", symbol)
    return named[1] if named else pointer.type.strip_typedefs().target().unqualified().name


def as_dynamic(pointer):
    """`pointer` as one to the class that the object really has, if gdb knows that class."""
    try:
        if gdb.lookup_type(class_name(pointer)).strip_typedefs().fields():
            return pointer.cast(pointer.dynamic_type)
    except gdb.error:
        pass
    return pointer


def described(pointer):
    """A pointer with the class that it points to."""
    if pointer == 0:
        return "none"
    return f"({class_name(pointer)} *) {int(as_dynamic(pointer)):#x}"


def is_a(type_, name):
    """Whether a class is `name` or derives from it."""
    type_ = type_.strip_typedefs().unqualified()
    return type_.name == name or any(
        field.is_base_class and is_a(field.type, name) for field in type_.fields()
    )


def counted(number, noun):
    number = int(number)
    return f"{number} {noun}" if number == 1 else f"{number} {noun}s"


def error_name(number):
    number = int(number)
    return f"errno {number} ({errno.errorcode.get(number, 'unknown')})"


# Threads and time


def thread_text(lwp):
    """A thread by its id in the kernel."""
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == lwp:
            return f"thread {thread.num} (LWP {lwp})"
    return f"LWP {lwp}, which is not there"


def pthread_text(pthread):
    """A thread by its pthread_t."""
    pthread = int(pthread)
    for thread in gdb.selected_inferior().threads():
        try:
            if int.from_bytes(thread.handle(), "little") == pthread:
                return f"thread {thread.num} (LWP {thread.ptid[1]})"
        except gdb.error:  # gdb has no thread library for this word size.
            break
    return f"pthread {pthread:#x}"


def time_text(nanoseconds):
    seconds, rest = divmod(int(nanoseconds), 1_000_000_000)
    moment = datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=seconds)
    return f"{moment:%Y-%m-%d %H:%M:%S}.{rest // 1000:06d} UTC"


def target_kind():
    connection = gdb.selected_inferior().connection
    return None if connection is None else connection.type


def wall_clock():
    """The wall clock that goes with the memory shown: (nanoseconds, whose), or None.

    A core file does not tell when it was made. It was last written when the process had just
    stopped, so the time of the file stands in for that.
    """
    if target_kind() == LIVE:
        return time.time_ns(), "now"
    if target_kind() == CORE:
        files = gdb.execute("info files", to_string=True)
        named = re.search(r"core dump file:\s+[`'‘](.*?)['’], file type", files)
        if named is not None and os.path.exists(named[1]):
            return os.stat(named[1]).st_mtime_ns, "when the core file was last written"
    return None


# Locks and events


def platform_mutex_text(mutex):
    """State and owner from glibc's own words, which the kernel and all threads go by."""
    words = mutex["__data"]
    if int(words["__kind"]) == -1:
        return "destroyed"
    if int(words["__lock"]) == 0:
        return "free"
    owner = int(words["__owner"])
    text = "held by " + (thread_text(owner) if owner != 0 else "who just takes or leaves it")
    depth = int(words["__count"])
    if depth > 0:
        text += f", {depth} deep"
    return text + (", others may wait" if int(words["__lock"]) > 1 else "")


def has_magic(value, magic):
    return int(value["m_Magic"]) == magic


class Printer:
    """One line, and nothing to unfold."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return self.text(self.value)


class ThreadMutexPrinter(Printer):
    MAGIC = 0xDEAD

    def text(self, value):
        if not has_magic(value, self.MAGIC):
            return f"not a ThreadMutex: magic {int(value['m_Magic']):#x}"
        text = platform_mutex_text(value["m_Mutex"])
        if text == "free" and value["m_Owner"] != 0:
            text += f", last held by {pthread_text(value['m_Owner'])}"
        locks, unlocks = value["m_LockCount"], value["m_UnlockCount"]
        return f"{text}; {counted(locks, 'lock')}, {counted(unlocks, 'unlock')}"


class ThreadRecursiveMutexPrinter(Printer):
    MAGIC = 0xBEEF

    def text(self, value):
        if not has_magic(value, self.MAGIC):
            return f"not a ThreadRecursiveMutex: magic {int(value['m_Magic']):#x}"
        return platform_mutex_text(value["m_Mutex"])


class LockerPrinter(Printer):
    def text(self, value):
        lockable = value["m_Lockable"]
        if not value["m_Locked"]:
            return f"released {int(lockable):#x}"
        return f"holds {int(lockable):#x}: {platform_mutex_text(lockable['m_Mutex'])}"


class ThreadEventPrinter(Printer):
    def text(self, value):
        parts = ["set" if value["m_Signalled"]["_M_base"]["_M_i"] else "clear"]
        # Above the three flags: how many threads are inside the platform's wait.
        waiters = int(value["m_Condition"]["__data"]["__wrefs"]) >> 3
        parts.append("nobody waits" if waiters == 0 else f"{waiters} waiting")
        sleeps, wakes = value["m_WaitCount"], value["m_WakeCount"]
        parts.append(f"{counted(sleeps, 'sleep')}, {counted(wakes, 'wake')}")
        if value["m_WaitStart"] != 0:
            parts.append(f"last sleep began {time_text(value['m_WaitStart'])}")
        parts.append(f"mutex {platform_mutex_text(value['m_Mutex']['m_Mutex'])}")
        return "; ".join(parts)


class ProcessMutexPrinter(Printer):
    def text(self, value):
        semaphore = int(value["m_SemaphoreId"])
        state = "not initialised"
        if semaphore != -1:
            state = f"semaphore {semaphore}; the kernel knows its state: ipcs -s -i {semaphore}"
        return f"lock file {quoted(value['m_Path'])}, {state}"


# Timers


class TimerQueue:
    """A VelaHost_OS::TimerQueue and its clock."""

    def __init__(self, value):
        self.value = value
        self.requests = value["m_Requests"]
        reading = wall_clock()
        self.now = None if reading is None else self.to_clock(reading[0])
        self.now_is = None if reading is None else reading[1]

    def to_clock(self, nanoseconds):
        """Milliseconds, rounded to the nearest, as the queue reckons."""
        elapsed = nanoseconds - int(self.value["m_StartTime"]) + 500_000
        return elapsed // 1_000_000 if elapsed >= 0 else -(-elapsed // 1_000_000)

    def pending(self):
        key = gdb.lookup_type("unsigned long long")
        request = gdb.lookup_type("VelaHost_OS::TimerService::Request").pointer()
        for _, pointer in tree_items(self.requests, key, request):
            yield pointer.dereference()

    def summary(self):
        thread = self.value["m_Thread"]
        clock = "clock unknown" if self.now is None else f"clock {self.now} ms {self.now_is}"
        return "; ".join([
            f"{counted(tree_size(self.requests), 'request')} pending",
            clock,
            "no thread yet" if thread == 0 else f"timer thread: {pthread_text(thread)}",
            f"lock {platform_mutex_text(self.value['m_Mutex'])}",
        ])

    def rows(self):
        for request in self.pending():
            expiry = expiry_of(request)
            left = "?" if self.now is None else f"{expiry - self.now:+d}"
            interval, handler = handler_text(request["m_Handler"])
            yield str(expiry), left, interval, handler


def expiry_of(request):
    """Times before the queue's start, which a clock set back leads to, count as negative."""
    expiry = int(request["m_Expiry"])
    return expiry - (1 << 64) if expiry >> 63 else expiry


def handler_text(handler):
    """Interval and handler of a request; for a timer, what the timer itself calls."""
    if handler == 0:
        return "", "none"
    handler = as_dynamic(handler)
    if not is_a(handler.type.target(), "VelaHost_Utility::Timer"):
        return "", described(handler)
    timer = handler.cast(gdb.lookup_type("VelaHost_Utility::Timer").pointer())
    kind = "every" if timer["m_Periodic"] else "once"
    interval = f"{kind} {int(timer['m_Interval'])}"
    return interval, f"timer {int(timer):#x} calls {described(timer['m_Handler'])}"


def running_queue():
    """The process's timer queue, or null when no timer has been used."""
    # Of this expression only the address: it is understood in whatever language gdb is.
    service = gdb.parse_and_eval("&'VelaHost_OS::TimerService::GetInstance()::s_TimerService_p'")
    return service.cast(gdb.lookup_type(TIMER_QUEUE).pointer().pointer()).dereference()


class RequestPrinter(Printer):
    def text(self, value):
        interval, handler = handler_text(value["m_Handler"])
        interval = f"{interval} ms, " if interval else ""
        return f"expires at {expiry_of(value)} ms, {interval}handler {handler}"


class TimerQueuePrinter:
    def __init__(self, value):
        self.queue = TimerQueue(value)

    def to_string(self):
        return self.queue.summary()

    def children(self):
        for index, request in enumerate(self.queue.pending()):
            yield f"[{index}]", request


def print_service(value):
    """The service's one implementation is the queue."""
    service = as_dynamic(value.address).dereference()
    return TimerQueuePrinter(service) if is_a(service.type, TIMER_QUEUE) else None


class TimerPrinter(Printer):
    def text(self, value):
        kind = "every" if value["m_Periodic"] else "once after"
        interval = int(value["m_Interval"])
        state = "stopped"
        if value["m_Running"]:
            state = "running"
            if value["m_Request"] != 0:
                state += f", expires at {expiry_of(value['m_Request'])} ms"
        return f"{state}, {kind} {interval} ms, calls {described(value['m_Handler'])}"


class InfoTimers(gdb.Command):
    """Show the pending timer requests, in the order in which they expire.

    info velahost-timers [QUEUE]

    EXPIRY is in milliseconds on the queue's clock, FROM NOW the time until then: by the wall clock
    in a live process, in a core file by the time at which the file was last written. QUEUE is an
    expression for a VelaHost_OS::TimerQueue, or a pointer to one; without it the process's own is
    shown."""

    def __init__(self):
        super().__init__("info velahost-timers", gdb.COMMAND_STATUS, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        try:
            queue = gdb.parse_and_eval(argument) if argument else running_queue()
        except gdb.error as error:
            raise gdb.GdbError(f"The timer queue can't be found: {error}")
        if queue.type.strip_typedefs().code == gdb.TYPE_CODE_PTR:
            if queue == 0:
                print("No timer has been used.")
                return
            queue = as_dynamic(queue).dereference()
        if not is_a(queue.type, TIMER_QUEUE):
            raise gdb.GdbError("That is not a VelaHost_OS::TimerQueue.")
        shown = TimerQueue(queue)
        print(f"Timer queue {int(queue.address):#x}: {shown.summary()}")
        rows = list(shown.rows())
        if rows:
            rows.insert(0, ("EXPIRY", "FROM NOW", "INTERVAL", "HANDLER"))
            widest = [max(map(len, column)) for column in zip(*rows)]
            for expiry, left, interval, handler in rows:
                numbers = f"{expiry:>{widest[0]}}  {left:>{widest[1]}}"
                print(f"  {numbers}  {interval:<{widest[2]}}  {handler}")


# Configuration


def property_of(pointer):
    """An entry as the class that its type stands for."""
    name = {1: "UIntProperty", 2: "StringProperty"}.get(int(pointer["m_Type"]))
    if name is None:
        return pointer.dereference()
    return pointer.cast(gdb.lookup_type(f"VelaHost_Utility::{name}").pointer()).dereference()


class PropertyPrinter(Printer):
    def text(self, value):
        value = property_of(value.address)
        if is_a(value.type, "VelaHost_Utility::StringProperty"):
            return f"text {quoted(value['m_Value'])}"
        if is_a(value.type, "VelaHost_Utility::UIntProperty"):
            return f"number {int(value['m_Value'])} ({int(value['m_Value']):#x})"
        return f"not a property: type {int(value['m_Type'])}"


class PropertiesPrinter:
    """Names with their types and values, then the sections by their tags."""

    def __init__(self, value):
        self.value = value
        self.has_sections = is_a(value.type, "VelaHost_Utility::PropertiesEx")

    def properties(self):
        text = self.value["m_LastError"].type
        entry = gdb.lookup_type("VelaHost_Utility::Property").pointer()
        for name, pointer in tree_items(self.value["m_Properties"], text, entry):
            yield name, property_of(pointer)

    def sections(self):
        if not self.has_sections:
            return
        text, byte = self.value["m_LastError"].type, gdb.lookup_type("char")
        section = gdb.lookup_type("VelaHost_Utility::PropertiesSection").pointer()
        for kind, sections in tree_items(self.value["m_Sections"], text, byte):
            for pointer in vector_items(sections, section):
                words = vector_items(pointer["m_Arguments"], text)
                yield " ".join([text_of(kind), *map(text_of, words)]), pointer.dereference()

    def to_string(self):
        size = tree_size(self.value["m_Properties"])
        text = f"{size} {'property' if size == 1 else 'properties'}"
        if self.has_sections:
            text += f", {counted(sum(1 for _ in self.sections()), 'section')}"
        if self.value["m_LastError"]["_M_string_length"] != 0:
            text += f", last error {quoted(self.value['m_LastError'])}"
        return text

    def children(self):
        for name, entry in self.properties():
            yield f"[{quoted(name)}]", entry
        for tag, section in self.sections():
            yield f"<{tag}>", section


# Exceptions


class ExceptionPrinter(Printer):
    def text(self, value):
        name = class_name(value.address)
        value = as_dynamic(value.address).dereference()
        context = value["m_Context"]
        for namespace in ("VelaHost_Utility::", "VelaHost_Ipc::"):
            name = name.removeprefix(namespace)
        text = f"{name} {int(value['m_ErrorCode']):#x} {quoted(value['m_Text'])}"
        for error in ("m_SysErr", "m_Errno"):
            if any(field.name == error for field in value.type.strip_typedefs().fields()):
                text += f", {error_name(value[error])}"
        if context["m_CompName"] != 0:
            text += f", component {quoted(context['m_CompName'])}"
        file = text_of(context["m_File"]) if context["m_File"] != 0 else "?"
        return f"{text} at {file}:{int(context['m_Line'])}"


# Sockets and connections


def network_order(number):
    return socket.ntohs(int(number))


def address_text(address):
    family = int(address["any"]["sa_family"])
    if family == socket.AF_INET:
        host = struct.pack("=I", int(address["inet"]["sin_addr"]["s_addr"]))
        return f"{socket.inet_ntoa(host)}:{network_order(address['inet']['sin_port'])}"
    if family == socket.AF_UNIX:
        return quoted(address["local"]["sun_path"][0].address)
    return None


def peer_text(descriptor):
    """Who is at the other end of a TCP socket: the kernel knows, so only a process on this machine
    can be asked."""
    if target_kind() != LIVE:
        return None
    process = f"/proc/{gdb.selected_inferior().pid}"
    try:
        inode = os.readlink(f"{process}/fd/{descriptor}")
        with open(f"{process}/net/tcp", encoding="ascii") as table:
            for entry in table:
                columns = entry.split()
                if inode == f"socket:[{columns[9]}]":
                    host, port = columns[2].split(":")
                    return f"{socket.inet_ntoa(struct.pack('=I', int(host, 16)))}:{int(port, 16)}"
    except OSError:
        pass
    return None


class SocketPrinter(Printer):
    def text(self, value):
        descriptor = int(value["sock"])
        text = "no descriptor" if descriptor == -1 else f"descriptor {descriptor}"
        domain = int(value["domain"])
        family = {socket.AF_INET: "TCP", socket.AF_UNIX: "Unix domain"}
        address = address_text(value["address"])
        text += f", {family.get(domain, f'family {domain}')}"
        return text + (f", address {address}" if address else "")


class SocketConnectionPrinter(Printer):
    HEADER = 8

    def text(self, value):
        descriptor = int(value["sock"])
        text = f"connection {int(value['id'])}, "
        if descriptor == -1:
            return text + "free"
        fill = int(value["fill"])
        text += f"open on descriptor {descriptor}, peer {peer_text(descriptor) or 'unknown'}"
        text += f", {fill} of {int(value['bufferSize'])} bytes buffered"
        if fill >= self.HEADER:
            head = gdb.selected_inferior().read_memory(int(value["buffer"]), self.HEADER).tobytes()
            length, _, category = struct.unpack("<IHH", head)
            text += f", a frame of {length} in category {category} first"
        return text


class QueueConnectionPrinter(Printer):
    def text(self, value):
        process = int(value["pid"])
        state = "free" if process == 0 else f"process {process}"
        return f"connection {int(value['id'])}, {state}"


class ConnectionManagerPrinter:
    def __init__(self, value):
        self.value = value

    def connections(self):
        transport = self.value.type.strip_typedefs().template_argument(0)
        connection = gdb.lookup_type(f"{transport.name}::Connection").pointer()
        for pointer in vector_items(self.value["connections"], connection):
            yield pointer.dereference()

    def to_string(self):
        handlers = self.value["handlers"]
        first, last = handlers.type.range()
        taken = [str(category) for category in range(first, last + 1) if handlers[category] != 0]
        connections = sum(1 for _ in self.connections())
        return f"{counted(connections, 'connection')}; handlers for {', '.join(taken) or 'nothing'}"

    def children(self):
        for connection in self.connections():
            yield f"[{int(connection['id'])}]", connection


PRINTERS = {
    "VelaHost_OS::ProcessMutex": ProcessMutexPrinter,
    "VelaHost_OS::ThreadEvent": ThreadEventPrinter,
    "VelaHost_OS::ThreadMutex": ThreadMutexPrinter,
    "VelaHost_OS::ThreadRecursiveMutex": ThreadRecursiveMutexPrinter,
    TIMER_QUEUE: TimerQueuePrinter,
    "VelaHost_OS::TimerService": print_service,
    "VelaHost_OS::TimerService::Request": RequestPrinter,
    "VelaHost_Ipc::ClientSocket": SocketPrinter,
    f"{MANAGER}<VelaHost_Ipc::IpcMsgQueueTransport>": ConnectionManagerPrinter,
    f"{MANAGER}<VelaHost_Ipc::IpcSocketTransport>": ConnectionManagerPrinter,
    "VelaHost_Ipc::IpcMsgException": ExceptionPrinter,
    "VelaHost_Ipc::IpcMsgQueueTransport::Connection": QueueConnectionPrinter,
    "VelaHost_Ipc::IpcSocketException": ExceptionPrinter,
    "VelaHost_Ipc::IpcSocketTransport::Connection": SocketConnectionPrinter,
    "VelaHost_Ipc::ServerSocket": SocketPrinter,
    "VelaHost_Ipc::Socket": SocketPrinter,
    "VelaHost_Utility::BadParmException": ExceptionPrinter,
    "VelaHost_Utility::BadStateException": ExceptionPrinter,
    "VelaHost_Utility::Exception": ExceptionPrinter,
    "VelaHost_Utility::FeatureNotSupportedException": ExceptionPrinter,
    "VelaHost_Utility::Lockable": ThreadRecursiveMutexPrinter,
    "VelaHost_Utility::Locker": LockerPrinter,
    "VelaHost_Utility::NotImplementedException": ExceptionPrinter,
    "VelaHost_Utility::Properties": PropertiesPrinter,
    "VelaHost_Utility::PropertiesEx": PropertiesPrinter,
    "VelaHost_Utility::PropertiesException": ExceptionPrinter,
    "VelaHost_Utility::PropertiesSection": PropertiesPrinter,
    "VelaHost_Utility::Property": PropertyPrinter,
    "VelaHost_Utility::StringProperty": PropertyPrinter,
    "VelaHost_Utility::SystemException": ExceptionPrinter,
    "VelaHost_Utility::Timer": TimerPrinter,
    "VelaHost_Utility::TimerException": ExceptionPrinter,
    "VelaHost_Utility::UIntProperty": PropertyPrinter,
}


def for_complete(printer):
    def make(value):
        if value.type.strip_typedefs().code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
        # A class that is only declared has nothing to show.
        return printer(value) if value.type.strip_typedefs().fields() else None

    return make


def register():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("libvelahost")
    for name, printer in PRINTERS.items():
        printers.add_printer(name, f"^{re.escape(name)}$", for_complete(printer))
    gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)
    InfoTimers()


register()
