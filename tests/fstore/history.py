"""What programs that run at the same time may have done to one database, by what each was told.

Every command takes effect at one point between its start and its end, and a command that was
killed takes effect at one point before its death, or never. History keeps all worlds that are
possible so far; when none is left, some program was told what is not true.
"""

import dataclasses
import threading
import typing

KILLED = -9
BUSY = 33
WRONG_PASSWORD = 6
MISSING = 50


class Record(typing.NamedTuple):
    """What is known of a record: the SHA-256 of its body, and what else `ls --unlock` shows."""

    sha256: str
    label: str | None
    encrypted: bool


class Database(typing.NamedTuple):
    """The contents of a database: its password, and pairs of an address and its Record."""

    password: str
    records: frozenset

    def find(self, address):
        return dict(self.records).get(address)

    def with_record(self, address, record):
        """With another record at this address; with none when `record` is None."""
        records = dict(self.records)
        records.pop(address, None)
        if record is not None:
            records[address] = record
        return self._replace(records=frozenset(records.items()))


class World(typing.NamedTuple):
    """The database, and what each program's backup holds."""

    database: Database
    backups: tuple


@dataclasses.dataclass
class Step:
    """What a command does: effects(world) has each (world after it, answer) that it may have,
    and no answer is None.

    `broken` has the worlds that it may leave behind besides when it is killed on the way.
    """

    what: str
    effects: typing.Callable
    broken: typing.Callable = lambda world: []


class Impossible(AssertionError):
    """No order of the commands explains what the programs were told."""


class History:
    """The possible worlds, while some programs run a command each; for several threads."""

    def __init__(self, world, programs):
        # Each with the answers of the commands that have taken effect and are not over.
        self._worlds = {(world, (None,) * programs)}
        self._running = [None] * programs
        self._lock = threading.Lock()
        self._events = []
        self.databases = {world.database}  # all that there may have been

    def begin(self, program, step):
        with self._lock:
            assert self._running[program] is None
            self._running[program] = step
            self._events.append(f"{program} begins {step.what}")

    def end(self, program, answer):
        """The program's command was answered; KILLED and BUSY are answers, too."""
        with self._lock:
            self._events.append(f"{program} ends with {answer}")
            worlds = self._reachable()
            self.databases |= {world.database for world, _ in worlds}
            if answer == KILLED:
                worlds |= {(broken, answers) for world, answers in worlds
                           if answers[program] is None
                           for broken in self._running[program].broken(world)}
            elif answer == BUSY:
                worlds = {each for each in worlds if each[1][program] is None}
            else:
                worlds = {each for each in worlds if each[1][program] == answer}
            if not worlds:
                raise Impossible("\n".join([f"program {program} was told {answer}",
                                            *self._events[-40:],
                                            "before that it was one of:",
                                            *map(str, list(self._worlds)[:4])]))
            self._worlds = {(world, self._without(answers, program)) for world, answers in worlds}
            self._running[program] = None

    @staticmethod
    def _without(answers, program):
        return answers[:program] + (None,) + answers[program + 1:]

    def _reachable(self):
        """Each world, with any of the running commands done in any order."""
        found = set(self._worlds)
        fresh = list(found)
        while fresh:
            world, answers = fresh.pop()
            for program, step in enumerate(self._running):
                if step is None or answers[program] is not None:
                    continue
                for after, answer in step.effects(world):
                    reached = (after, answers[:program] + (answer,) + answers[program + 1:])
                    if reached not in found:
                        found.add(reached)
                        fresh.append(reached)
        return found
