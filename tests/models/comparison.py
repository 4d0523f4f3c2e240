"""Carries a history out on the agent and on the model, and compares them after each step."""

import copy
import difflib
import re
import time

import histories
import lines
import router_model
import rule_files
import server_record
from agent import Agent, Failure

RECORDS = {
    "/oper/crypto-ssh/gl/server-params": server_record.server_params,
    "/oper/overlays/gl/crypto_ssh/openconfig-system/": server_record.telemetry,
}
NUMBER = re.compile(r"^ARG8=(\d+)$", re.MULTILINE)
COUNT = re.compile(r"vrf:=\S+, refCnt:=\d+, ssh server .*")


class Difference(Exception):
    """The agent is not as the model says; the text tells in what."""


class Run:
    """A new agent and a new model."""

    def __init__(self):
        self.model = router_model.Router()
        self.agent = Agent()
        self._show_counts()

    def _show_counts(self):
        """Debug lines name the counts of references; they are off after each start."""
        self._expect(self.agent.call(call="debug", flag="cfg-agent", on=True), "done")
        self.agent.take_messages()
        self.model.counts = []

    @staticmethod
    def _expect(answer, *results):
        if answer["result"] not in results:
            raise Difference(f"the answer is {answer}, expected {' or '.join(results)}")

    def step(self, wanted):
        """Returns whether the step was carried out."""
        if not histories.makes_sense(self.model, wanted):
            return False
        kind, *arguments = wanted
        getattr(self, "_" + kind)(*arguments)
        self.compare(exactly=kind in ("commit", "list", "namespace", "debug"))
        return True

    def _commit(self, items):
        accepted = self.model.commit(items)
        self._expect(self.agent.call(call="load", items=items), "done" if accepted else "refused")

    def _kill_at(self, number, items):
        before, rules_before = dict(self.model.texts), copy.deepcopy(self.model.kernel)
        answer = self.agent.kill_at_command(number, {"call": "load", "items": items})
        accepted = self.model.commit(items)
        if answer is not None:
            self._expect(answer, "done" if accepted else "refused")
            return
        self._after_kill()
        self._keep_unused(before, rules_before)

    def _keep_unused(self, before, rules_before):
        """Whatever is no longer wanted and harmless stays as it was when the agent died: files of servers and rules and here,
        where nothing can be compared with the kernel, rules in the kernel, too."""
        state = self.agent.state()
        found = state["texts"]
        for vrf in {*histories.VRFS, "default"}:
            file = router_model.FOLDER + "sshd_config_" + vrf
            if file in found:
                self.model.lines.setdefault(file, found[file].splitlines())
            for kind in range(5):
                path = rule_files.path_of(vrf, kind)
                possible = [before.get(path)]
                possible += [rule_files.flush_text(kind), rule_files.header(kind)] if kind != rule_files.ALL else []
                if found.get(path) in possible and not self.model.uses(vrf, kind):
                    self.model.texts[path] = found.get(path)
                    if path not in found:
                        self.model.texts.pop(path, None)
                if vrf in self.model.kernel and kind != rule_files.ALL and not self.model.uses(vrf, kind):
                    rules = state["kernel"][vrf].get(rule_files.TABLES[kind], [])
                    if rules == rules_before.get(vrf, {}).get(rule_files.TABLES[kind], []):
                        self.model.kernel[vrf][rule_files.TABLES[kind]] = list(rules)

    def _fail(self, first, count, items):
        before, rules_before = dict(self.model.texts), copy.deepcopy(self.model.kernel)
        answer = self.agent.call_with_failures(first, count, {"call": "load", "items": items})
        accepted = self.model.commit(items)
        self._expect(answer, *(("done", "not_in_force") if accepted else ("refused",)))
        self._restart()
        self._keep_unused(before, rules_before)

    @staticmethod
    def _list_request(family, name, entries):
        if entries is None:
            return {"call": "acl_delete", "family": family, "name": name}
        return {"call": "acl_set", "family": family, "name": name, "entries": entries, "empty": not entries}

    def _list(self, family, name, entries):
        self._expect(self.agent.call(**self._list_request(family, name, entries)), "done")
        self.model.change_list(family, name, entries)

    def _namespace(self, vrf, exists):
        if exists:
            self.model.add_namespace(vrf)
            self.agent.add_namespace(vrf, vrf in self.model.running)
        else:
            self.model.delete_namespace(vrf)
            self.agent.delete_namespace(vrf)

    def _lose(self, path, items):
        self.agent.lose(path, comes_back=path == router_model.PAM_FILE)
        self.model.lose(path)
        self._commit(items)

    def _kill_in_list(self, number, family, name, entries):
        before, rules_before = dict(self.model.texts), copy.deepcopy(self.model.kernel)
        answer = self.agent.kill_at_command(number, self._list_request(family, name, entries))
        self.model.change_list(family, name, entries)
        if answer is not None:
            self._expect(answer, "done")
            return
        self._after_kill()
        self._keep_unused(before, rules_before)

    def _debug(self, flag, is_on):
        self._expect(self.agent.call(call="debug", flag=flag, on=is_on), "done")
        self.model.debug(flag, is_on)

    def _restart(self):
        self.agent.restart()
        self.model.start()
        self._show_counts()

    def _kill(self):
        self.agent.kill()
        self._after_kill()

    def _after_kill(self):
        self.model.start_after_kill()
        self._show_counts()

    def end(self):
        """The agent's own comparison finds nothing but what is to be expected here: without nft it cannot compare rules, and a
        client's file that was lost has only the lines that were changed since."""
        expected = {"file " + router_model.CLIENT_FILE} if self.model.client_is_incomplete else set()
        found = [each for each in self.agent.call(call="verify").get("data", [])
                 if each["text"] != "the rules in the kernel cannot be compared" and each["subject"] not in expected]
        if found:
            raise Difference(f"verify: {found}")

    # Comparisons

    def compare(self, exactly=True):
        state = self.agent.state()
        problems = self._compare_texts(self._with_names(state["texts"]), exactly)
        if state["running"] != self.model.running:
            problems.append(f"running servers: {sorted(state['running'])}, expected {sorted(self.model.running)}")
        for vrf, text in state["started"].items():
            file = router_model.FOLDER + "sshd_config_" + vrf
            if text != state["texts"].get(file):
                problems.append(f"the server of {vrf} was not restarted since its file changed")
        problems += compare_rules(state["kernel"], self.model.kernel)
        problems += self._compare_counts() + self._compare_records()
        stored = self.agent.call(call="dump")["data"]
        lists = {path: [entry["SequenceNumber"] for entry in stored.pop(path)]
                 for path in list(stored) if path.startswith("/access-lists/")}
        if stored != self.model.stored:
            problems.append(f"stored: {stored}, expected {self.model.stored}")
        expected_lists = {f"/access-lists/{family}/{name}": sorted(entry["SequenceNumber"] for entry in entries)
                          for family, named in self.model.access_lists.items() for name, entries in named.items()}
        if lists != expected_lists:
            problems.append(f"lists: {lists}, expected {expected_lists}")
        rows = {row.pop("name"): row for row in self.agent.call(call="vrf_list")["data"]}
        # A VRF keeps its number when nothing else is left of it.
        rows = {name: {key: row[key] for key in row if key != "id"} for name, row in rows.items()
                if row["namespace"] or row["waiting"]}
        if rows != (expected := self.model.services()):
            problems.append(f"services: {rows}, expected {expected}")
        if problems:
            raise Difference("\n".join(problems))

    def _compare_records(self):
        problems = []
        for path, expected in RECORDS.items():
            found = self.agent.call(call="show", path=path)["data"]
            wanted = expected(self.model)
            problems += [f"{path}, {name}: {found.get(name)!r}, expected {wanted.get(name)!r}"
                         for name in found.keys() | wanted.keys() if found.get(name) != wanted.get(name)]
        return problems

    def _compare_counts(self):
        found = [match[0] for text in self.agent.take_messages() if (match := COUNT.search(text))]
        expected, self.model.counts = self.model.counts, []
        return [] if found == expected else [f"counts of references: {found}, expected {expected}"]

    def _with_names(self, texts):
        """The texts with the VRFs' names in place of their numbers, which must be distinct and stay the same."""
        result = dict(texts)
        for path, text in texts.items():
            if "/sshd_conf_" in path and (match := NUMBER.search(text)):
                vrf = path.rsplit("/sshd_conf_", 1)[1].removesuffix(".conf")
                if self.model.numbers.setdefault(vrf, match[1]) != match[1]:
                    raise Difference(f"the number of {vrf} was {self.model.numbers[vrf]} and is {match[1]}")
                result[path] = NUMBER.sub(f"ARG8=<{vrf}>", text)
        if len(set(self.model.numbers.values())) != len(self.model.numbers):
            raise Difference(f"two VRFs have one number: {self.model.numbers}")
        return result

    def _compare_texts(self, found, exactly):
        for name in ("temp_sshd_config", "aaa_banner_is_in_motd"):
            found.pop(router_model.FOLDER + name, None)
        expected = {path: "".join(line + "\n" for line in text) for path, text in self.model.lines.items()}
        expected |= self.model.texts
        problems = []
        for path in sorted(found.keys() | expected.keys()):
            if found.get(path) == expected.get(path):
                continue
            same = not exactly and self._agree_but_for_order(path, found.get(path))
            problems += [] if same else difference(path, expected.get(path), found.get(path))
        return problems

    def _agree_but_for_order(self, path, text):
        """After a start the order of a file's lines depends on what was done before. If nothing else differs, the model
        goes on with the agent's order."""
        expected = self.model.lines.get(path)
        if expected is None or text is None:
            return False
        found = text.splitlines()
        if lines.one_form(expected) != lines.one_form(found):
            # A server's file may have been made before or after the default file lost a line that is the default.
            if path == router_model.CLIENT_FILE or not self.model.agree(found, expected):
                return False
        self.model.lines[path] = found
        return True


def compare_rules(found, expected):
    problems = []
    for vrf in sorted(found.keys() | expected.keys()):
        present, wanted = found.get(vrf, {}), expected.get(vrf, {})
        for table in sorted(present.keys() | wanted.keys()):
            if present.get(table, []) != wanted.get(table, []):
                problems += difference(f"table {table} of {vrf}", "\n".join(wanted.get(table, [])),
                                       "\n".join(present.get(table, [])))
    return problems


def difference(name, expected, found):
    if expected is None or found is None:
        return [f"{name}: {'should not exist' if expected is None else 'is missing'}"]
    return list(difflib.unified_diff(expected.splitlines(), found.splitlines(), f"{name}, expected", f"{name}, found",
                                     n=1, lineterm=""))


def carry_out(next_step, count):
    """Carries out at most `count` steps, until the agent and the model differ or `next_step` returns None. Returns the steps
    that were carried out and the difference, or None."""
    done = []
    run = None
    try:
        run = Run()
        run.compare()
        for _ in range(count):
            wanted = next_step(run.model)
            if wanted is None:
                break
            if histories.makes_sense(run.model, wanted):
                done.append(wanted)
                run.step(wanted)
        run.end()
    except (Difference, Failure, OSError, EOFError) as error:
        return done, f"{type(error).__name__}: {error}"
    finally:
        if run is not None:
            run.agent.remove()
    return done, None


def replay(steps):
    """Carries a given history out."""
    left = iter(steps)
    return carry_out(lambda model: next(left, None), len(steps))


# So many characters of two differences must be the same for them to count as one.
SAME = 24


def shrink(steps, seconds=180):
    """Leaves out what is not needed for a difference, for about so long, and returns the rest with its difference."""
    end = time.monotonic() + seconds
    steps, problem = replay(steps)
    size = max(1, len(steps) // 2)
    while problem is not None and time.monotonic() < end:
        shorter = None
        for candidate in shorter_histories(steps, size):
            done, found = replay(candidate)
            if found is not None and found[:SAME] == problem[:SAME]:
                shorter = done
                problem = found
                break
            if time.monotonic() > end:
                break
        if shorter is not None:
            steps = shorter
        elif size > 1:
            size //= 2
        else:
            break
    return steps, problem


def shorter_histories(steps, size):
    """The history without each group of `size` steps, from the end; then, step by step, with less in a step."""
    for start in range(len(steps) - size, -1, -size):
        yield steps[:start] + steps[start + size:]
    if size == 1:
        for index, wanted in enumerate(steps):
            for less in smaller_steps(wanted):
                yield [*steps[:index], less, *steps[index + 1:]]


def smaller_steps(wanted):
    kind, *arguments = wanted
    if kind in ("commit", "kill_at") and len(arguments[-1]) > 1:
        for path in arguments[-1]:
            yield [kind, *arguments[:-1], {each: value for each, value in arguments[-1].items() if each != path}]
    if kind == "kill_at":
        yield ["commit", arguments[-1]]
    if kind == "list" and arguments[2]:
        for index in range(len(arguments[2]) if len(arguments[2]) > 1 else 0):
            yield [kind, *arguments[:2], arguments[2][:index] + arguments[2][index + 1:]]
        for index, entry in enumerate(arguments[2]):
            for field in list(entry):
                if field not in ("SequenceNumber", "Grant", "IsPacketAllowOrDeny"):
                    less = {name: value for name, value in entry.items() if name != field}
                    yield [kind, *arguments[:2], [*arguments[2][:index], less, *arguments[2][index + 1:]]]
