"""The workloads. Each starts new processes, so that no run is influenced by an earlier one."""

import contextlib
import dataclasses
import statistics
import time

from processes import Client
from silent import silent_connections

QUIET_MS = 1000  # after this long without a delivery, the rest counts as lost


@dataclasses.dataclass
class Sizes:
    burst: int = 200_000
    seconds: int = 10  # at 1,000 posts per second
    queries: int = 10_000
    fan_out: int = 50_000
    stored: int = 10_000
    starts: int = 5
    together: int = 100
    silent: int = 1_000
    growth_keys: tuple = (10, 100, 1_000, 10_000)
    growth_posts: int = 50_000
    growth_clients: tuple = (1, 10, 100)
    growth_deliveries: int = 200_000

    @staticmethod
    def quick():
        return Sizes(20_000, 1, 1_000, 5_000, 1_000, 2, 10, 100, (10, 1_000), 5_000, (1, 10), 10_000)


def cpu_seconds(processes):
    return sum(process.cpu_seconds() for process in processes)


class Road:
    """A broker, its poster and its subscribers."""

    def __init__(self, system, folder, stack):
        self.system = system
        self.folder = folder
        self.stack = stack
        self.broker, self.arguments = system.start(folder)
        stack.callback(self.broker.stop)
        self.poster = None
        self.subscribers = []
        self.run = 0

    def client(self):
        client = Client([self.system.client_program(), *self.arguments], self.folder)
        self.stack.callback(client.stop)
        return client

    def connect_poster(self):
        self.poster = self.client()
        self.poster.command("connect", 1)

    def subscribe(self, keys):
        subscriber = self.client()
        first = subscriber.command("subscribe", keys)
        self.subscribers.append(subscriber)
        return first["firstMs"]

    def carry(self, command, count, *details):
        """Lets the poster post `count` values and waits for the deliveries. Counts the cost of all processes."""
        self.run += 1
        for subscriber in self.subscribers:
            subscriber.command("expect", self.run, count)
        parts = {"Poster": [self.poster], "Broker": [self.broker], "Subscribers": self.subscribers}
        everybody = [process for processes in parts.values() for process in processes]
        before = {part: cpu_seconds(processes) for part, processes in parts.items()}
        sleeps = sum(process.sleeps() for process in everybody)
        posted = self.poster.command(command, self.run, count, *details, seconds=120)
        for subscriber in self.subscribers:
            subscriber.begin("collect", QUIET_MS)
        collected = [subscriber.answer(60) for subscriber in self.subscribers]
        used = {part: cpu_seconds(processes) - before[part] for part, processes in parts.items()}
        sleeps = sum(process.sleeps() for process in everybody) - sleeps
        cpu = sum(used.values())
        delivered = sum(one["delivered"] for one in collected)
        seconds = (max(one["last"] for one in collected) - posted["begin"]) / 1e9
        result = {"lost": count * len(collected) - delivered}
        if delivered != 0:
            result |= {
                "rate": delivered / seconds,
                "cpu": cpu / delivered * 100_000,
                "postCpu": cpu / count * 1e6,
                "deliveryCpu": cpu / delivered * 1e6,
                "sleeps": sleeps / delivered,
            } | {f"cpu{part}": seconds / delivered * 100_000 for part, seconds in used.items()} | {
                name: statistics.median(one[name] for one in collected) for name in ("p50", "p99", "p999")}
        return result


@contextlib.contextmanager
def road(system, folder, subscribers=0, keys=100, poster=True):
    with contextlib.ExitStack() as stack:
        made = Road(system, folder, stack)
        if poster:
            made.connect_poster()
        for _ in range(subscribers):
            made.subscribe(keys)
        yield made


def plain(system, sizes, folder):
    with road(system, folder, 1) as made:
        return made.carry("burst", sizes.burst, 100, 0, "sync")


def synced(system, sizes, folder):
    with road(system, folder, 1) as made:
        return made.carry("burst", sizes.burst, 100, 250, "sync")


def queried(system, sizes, folder):
    """Uses the product's query as the barrier, which is less strict than its sync. A floor has only one barrier."""
    with road(system, folder, 1) as made:
        return made.carry("burst", sizes.burst, 100, 250, "query" if system.name == "product" else "sync")


def paced(system, sizes, folder):
    with road(system, folder, 1) as made:
        return made.carry("paced", 1000 * sizes.seconds, 100, 1000)


def query(system, sizes, folder):
    with road(system, folder) as made:
        made.poster.command("burst", 1, 100, 100, 0, "sync")
        asker = made.client()
        asker.command("connect", 0)
        return asker.command("ask", sizes.queries, 100, seconds=60)


def fan_out(system, sizes, folder):
    with road(system, folder, 8) as made:
        return made.carry("burst", sizes.fan_out, 100, 250, "sync")


def memory(system, sizes, folder):
    with road(system, folder, poster=False) as made:
        idle = made.broker.memory()
        made.connect_poster()
        made.subscribe(10)
        client = made.subscribers[0].memory()
        result = {"idleRss": idle["rss"], "idlePss": idle["pss"], "clientRss": client["rss"],
                  "clientPss": client["pss"]}
        if system.keeps_values:
            made.poster.command("burst", 1, sizes.stored, sizes.stored, 250, "sync")
            stored = made.broker.memory()
            result |= {"storedRss": stored["rss"], "storedPss": stored["pss"]}
        return result


def start(system, sizes, folder):
    with road(system, folder) as made:
        return {"ms": statistics.median(made.subscribe(10) for _ in range(sizes.starts))}


def together(system, sizes, folder):
    """Many clients that connect at the same moment. Their processes are started before."""
    with road(system, folder) as made:
        clients = [made.client() for _ in range(sizes.together)]
        before = cpu_seconds([made.broker]), cpu_seconds(clients)
        for client in clients:
            client.begin("connect", 0)
        times = [client.answer(60)["ms"] for client in clients]
        after = cpu_seconds([made.broker]), cpu_seconds(clients)
        broker, client = ((end - begin) * 1e3 / len(clients) for begin, end in zip(before, after))
        return {"p50": statistics.median(times), "longest": max(times), "cpuBroker": broker, "cpuClient": client}


def silent(system, sizes, folder):
    """The cost of silent connections: per delivery, and while nothing is sent at all."""
    with road(system, folder, 1) as made:
        def cpu():
            runs = [made.carry("burst", sizes.burst, 100, 250, "sync").get("cpuBroker") for _ in range(5)]
            return None if None in runs else statistics.median(runs)

        alone = cpu()
        with silent_connections(sizes.silent):
            time.sleep(1.5)  # the broker sends one empty answer to each silent request connection
            before = made.broker.cpu_seconds()
            time.sleep(1)
            idle = made.broker.cpu_seconds() - before
            beside = cpu()
        return {"alone": alone, "beside": beside, "idle": idle * 1e6}


def growth(system, sizes, folder):
    result = {}
    for keys in sizes.growth_keys:
        with road(system, folder, 1, keys) as made:
            made.carry("burst", keys, keys, 250, "sync")  # afterwards no key is new
            result[f"keys{keys}"] = made.carry("burst", sizes.growth_posts, keys, 250, "sync").get("postCpu")
    for clients in sizes.growth_clients:
        with road(system, folder, clients) as made:
            posts = max(250, sizes.growth_deliveries // clients)
            carried = made.carry("burst", posts, 100, 250, "sync")
            result[f"clients{clients}"] = carried.get("deliveryCpu")
            result[f"postsTo{clients}"] = carried.get("postCpu")
    return result


@dataclasses.dataclass
class Workload:
    name: str
    run: object
    applies: object = lambda system: True
    rounds: object = lambda system, rounds: rounds


WORKLOADS = (
    Workload("plain", plain,
             rounds=lambda system, rounds: max(rounds, 20) if rounds > 1 and system.name == "product" else rounds),
    Workload("synced", synced),
    Workload("queried", queried, lambda system: system.name in ("product", "json")),
    Workload("paced", paced),
    Workload("query", query, lambda system: system.can_be_asked),
    Workload("fanOut", fan_out),
    Workload("memory", memory),
    Workload("start", start),
    Workload("together", together, lambda system: system.name in ("product", "json")),
    Workload("silent", silent, lambda system: system.name == "product"),
    Workload("growth", growth, lambda system: system.name in ("product", "json"),
             lambda system, rounds: min(rounds, 3)),
)
