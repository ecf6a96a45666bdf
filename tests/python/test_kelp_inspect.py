"""The module kelp_inspect against a real agent and hardware side."""

import gc
import os
import signal
import threading
import unittest

from kelp_inspect import Agent, Code, Collection, InspectError, Operation, Ref, hashable
from programs import Switch, wait_for, write

_TABLES = "KelpEmServer::Isem1TagKelpInterface/swTableSet"
_TABLE = f"{_TABLES}[0]"


class WithSwitch(unittest.TestCase):
    def setUp(self):
        self.switch = Switch(self)
        self.agent = self.enterContext(Agent(self.switch.inspect))

    def write_entries(self, count, unit=0):
        outcomes = self.switch.ask(*(write(number, unit) for number in range(count)))
        self.assertEqual({one["outcome"] for one in outcomes}, {"success"}, outcomes[:3])


class Tables(WithSwitch):
    def test_all_tables_of_all_units_are_there(self):
        tables = self.agent.tables()
        self.assertEqual(len(tables), 16)
        self.assertEqual([(one.name, one.unit) for one in tables[4:6]],
                         [("Isem1Tag", 0), ("Isem1Tag", 1)])
        self.assertTrue(all(one.entries == 0 for one in tables))

    def test_counts_and_versions_follow_the_entries(self):
        self.write_entries(30)
        wait_for(lambda: not self.agent.table("Isem1Tag").hasPendingHwWrites, "the hardware side")
        found = {(one.name, one.unit): one for one in self.agent.tables()}
        table = found["Isem1Tag", 0]
        self.assertEqual((table.entries, table.version, table.cleaned, table.pending),
                         (30, 30, 30, False))
        self.assertEqual(found["Isem1Tag", 1].entries, 0)

    def test_entries_come_in_pages_as_dicts(self):
        self.write_entries(2500)
        entries = list(self.agent.entries("Isem1Tag", 0))
        self.assertEqual(len(entries), 2500)
        keys = {(one["key"]["port"], one["key"]["vlan"]) for one in entries}
        self.assertEqual(keys, {(number % 50, 1 + number // 50) for number in range(2500)})
        circuits = {one["resources"]["inLifIdxKey"]["attachmentCircuit"] for one in entries}
        self.assertEqual(circuits, set(range(1, 2501)))
        self.assertEqual(len({one["payload"]["inLif0Index"] for one in entries}), 2500)

    def _entries(self):
        return next(one.entries for one in self.agent.tables() if one.name == "Isem1Tag")

    def test_a_snapshot_stays_what_it_was(self):
        self.write_entries(20)
        before = self.agent.snapshot("Isem1Tag", 0)
        later = self.agent.entries("Isem1Tag", 0)
        self.switch.ask({"op": "removeAll", "table": "Isem1Tag", "unit": 0})
        wait_for(lambda: self._entries() == 0, "the entries to go")
        self.assertEqual(len(before), 20)
        entry = before[hashable({"port": 3, "vlan": 1})]
        self.assertEqual(entry["key"], {"port": 3, "vlan": 1})
        self.assertIs(before[3, 1], entry)
        self.assertEqual({key.port for key in before}, set(range(20)))
        self.assertEqual(self.agent.snapshot("Isem1Tag", 0), {})
        self.assertEqual(list(later), [], "entries come from the table as it is")

    def test_a_table_or_a_unit_that_is_not_there_is_named(self):
        with self.assertRaises(InspectError) as caught:
            self.agent.entries("Isem9Tag", 0)
        self.assertEqual(caught.exception.code, Code.NOT_FOUND)
        self.assertIn("Isem9Tag", str(caught.exception))
        with self.assertRaises(InspectError) as caught:
            self.agent.snapshot("Isem1Tag", 7)
        self.assertEqual(caught.exception.code, Code.NOT_FOUND)
        self.assertIn("swTableSet[7]", caught.exception.path)


class Objects(WithSwitch):
    def test_attributes_are_read_by_name(self):
        interface = next(one for one in self.agent.objects()
                         if one.path == "KelpEmServer::Isem1TagKelpInterface")
        self.assertEqual(interface.tableName, "Isem1TagKelp")
        self.assertEqual(interface.entryLog.tableVersion, 0)
        self.assertIsInstance(interface.swTableSet.swTable, Collection)
        self.assertEqual(interface.swTableSet[1].unitId, 1)
        self.assertIsInstance(interface.makeSwTable, Operation)
        self.assertIn("entryLog", dir(interface))
        self.assertEqual(interface.class_name,
                         self.agent.ls(interface)["class"])
        with self.assertRaisesRegex(AttributeError, "has no entryLogs: it has .*entryLog"):
            _ = interface.entryLogs
        self.assertEqual(interface, self.agent.value({"ref": interface.path}))

    def test_classes_and_their_attributes(self):
        classes = self.agent.classes()
        self.assertEqual(classes, sorted(classes))
        table = self.agent.table("Isem1Tag").class_name
        self.assertIn(table, classes)
        attributes = {one["name"]: one for one in self.agent.attributes(table)}
        self.assertEqual(attributes["getTableEntries_py"]["kind"], "operation")
        self.assertEqual(attributes["markedKey"]["kind"], "collection")

    def test_a_collection_is_a_mapping(self):
        self.write_entries(5)
        entries = self.agent.read(f"{_TABLE}/getTableEntries_py").tableEntries
        self.assertEqual(len(entries), 5)
        key = {"port": 2, "vlan": 1}
        self.assertIn(key, entries)
        self.assertEqual(entries[key]["logEntry"]["key"], key)
        self.assertNotIn({"port": 2, "vlan": 9}, entries)
        self.assertEqual(entries.get({"port": 2, "vlan": 9}, "none"), "none")
        with self.assertRaises(KeyError):
            _ = entries[{"port": 2, "vlan": 9}]
        self.assertEqual({one["port"] for one in entries}, set(range(5)))
        self.assertEqual(len(list(entries.values())), 5)
        self.assertEqual(sorted(self.agent.read(_TABLES).swTable), [0, 1])
        with self.assertRaisesRegex(TypeError, "name one, as an attribute"):
            _ = self.agent.table("Isem1Tag")[5]

    def test_a_walk_begins_where_it_is_told_and_may_be_left(self):
        self.write_entries(40)
        copy = self.agent.read(f"{_TABLE}/getTableEntries_py")
        path = f"{copy.path}/tableEntries"
        keys = [key for key, _ in self.agent.iterate(path, page=7)]
        self.assertEqual(len(keys), 40)
        self.assertEqual([key for key, _ in self.agent.iterate(path, start=keys[30], page=3)],
                         keys[30:])
        # More walks than an agent keeps for a peer: those that are left are closed.
        for _ in range(100):
            walk = self.agent.iterate(path, page=2)
            next(walk)
            walk.close()

    def test_what_is_written_is_read(self):
        self.write_entries(3)
        copy = self.agent.read(f"{_TABLE}/getTableEntries_py")
        path = f"{copy.path}/tableEntries"
        entry = self.agent.lookup(path, {"port": 1, "vlan": 1})
        entry["logEntry"]["key"]["port"] = 40
        self.agent.write(path, entry)
        self.assertEqual(self.agent.count(path), 4)
        self.assertTrue(self.agent.has(path, {"port": 40, "vlan": 1}))
        self.assertEqual(self.agent.delete(path, {"port": 40, "vlan": 1}), entry)
        self.assertIsNone(self.agent.delete(path, {"port": 40, "vlan": 1}))
        self.assertEqual(self.agent.count(path), 3)

    def test_a_batch_is_answered_in_its_order(self):
        self.write_entries(150)
        ports = [number % 50 for number in range(150)]
        copy = self.agent.read(f"{_TABLE}/getTableEntries_py")
        path = f"{copy.path}/tableEntries"
        found = self.agent.batch([("lookup", {"path": path, "key": {"port": port, "vlan": 2}})
                                  for port in ports])
        self.assertEqual([one["logEntry"]["key"]["port"] for one in found], ports)
        found = self.agent.batch([("read", {"path": _TABLE}), ("read", {"path": "nowhere"}),
                                  ("count", {"path": path})])
        self.assertEqual(found[0].unitId, 0)
        self.assertEqual(found[1].code, Code.NOT_FOUND)
        self.assertEqual(found[2], 150)
        self.assertEqual(self.agent.batch([]), [])

    def test_an_object_is_an_argument(self):
        table = self.agent.table("Isem1Tag")
        with self.assertRaises(InspectError) as caught:
            self.agent.write(f"{_TABLE}/entryLog", table)
        self.assertEqual(caught.exception.code, Code.NOT_VALID)
        self.assertEqual(caught.exception.path, f"{_TABLE}/entryLog")
        self.assertIn("entryLog", str(caught.exception))

    def test_objects_are_let_go_of_with_their_last_ref(self):
        # More than an agent holds for a peer.
        names = set()
        for _ in range(600):
            names.add(self.agent.read(f"{_TABLE}/getTableEntries_py").path)
        self.assertGreater(len(names), 256)
        kept = self.agent.read(f"{_TABLE}/getTableEntries_py")
        again = self.agent.value({"ref": kept.path})
        del again
        gc.collect()
        self.assertEqual(len(kept.tableEntries), 0)
        kept.release()
        with self.assertRaises(InspectError) as caught:
            kept.tableEntries.items().__next__()
        self.assertEqual(caught.exception.code, Code.NOT_FOUND)


class Changes(WithSwitch):
    def test_changes_are_told_in_their_order(self):
        with self.agent.watch(f"{_TABLE}/inMarkingState") as changes:
            self.assertIsNone(changes.next(timeout=0))
            # A run that has not been told that the replay is complete marks what it is asked for.
            for value in (False, True):
                self.agent.write(f"{_TABLE}/inMarkingState", value)
                change = changes.next(timeout=60)
                self.assertEqual((change.path, change.key, change.value),
                                 (f"{_TABLE}/inMarkingState", None, value))
        self.assertIsNone(changes.next(timeout=0))

    def test_a_watch_tells_what_features_do(self):
        in_log = f"{_TABLE}/entryHandleInLog"
        added, taken = set(), []
        with self.agent.watch(in_log, timeout=60) as changes:
            writer = threading.Thread(target=self.write_entries, args=(10,))
            writer.start()
            for change in changes:
                self.assertEqual(change.path, in_log)
                if change.value is not None:
                    added.add(change.key)  # unless it has gone before that could be told
                    continue
                taken.append(change.key)
                if len(taken) == 10:
                    break
            writer.join()
        self.assertEqual(taken, list(range(1, 11)))
        self.assertLessEqual(added, set(taken))

    def test_what_publishes_nothing_is_said(self):
        with self.assertRaises(InspectError) as caught:
            self.agent.watch(f"{_TABLE}/entryLog/tableVersion")
        self.assertEqual(caught.exception.code, Code.NOT_VALID)
        self.assertEqual(self.agent.watches, set())

    def test_a_watch_ends_with_its_object(self):
        self.write_entries(1)
        usage = f"{_TABLE}/inLifIndexLinkage/entryUsageSm[attachmentCircuit=1]"
        with self.agent.watch(f"{usage}/resPtr/entryState") as changes:
            self.switch.ask({"op": "removeAll", "table": "Isem1Tag", "unit": 0})
            with self.assertRaises(InspectError) as caught:
                while changes.next(timeout=60) is not None:
                    pass
            self.assertEqual(caught.exception.code, Code.GONE)
            self.assertIn("resPtr/entryState", caught.exception.path)
            self.assertIsNone(changes.next(timeout=0))

    def test_an_iteration_ends_when_nothing_comes(self):
        with self.agent.watch(f"{_TABLE}/inMarkingState", timeout=0.01) as changes:
            self.assertEqual(list(changes), [])
            # The watch goes on.
            self.agent.write(f"{_TABLE}/inMarkingState", False)
            self.assertFalse(changes.next(timeout=60).value)

    def test_requests_between_changes_lose_none(self):
        marked = f"{_TABLE}/markedKey"
        with self.agent.watch(marked) as changes:
            for port in range(20):
                self.agent.write(marked, {"port": port, "vlan": 1})
            told = [changes.next(timeout=60).key["port"] for _ in range(20)]
        self.assertEqual(told, list(range(20)))
        self.assertEqual(self.agent.count(marked), 20)


class Trouble(WithSwitch):
    def test_errors_have_code_and_place(self):
        for method, params, code in (
                ("nothing", {}, Code.NO_METHOD), ("read", {}, Code.WRONG_PARAMS),
                ("read", {"path": "a["}, Code.WRONG_PARAMS),
                ("read", {"path": "nowhere"}, Code.NOT_FOUND),
                ("close", {"cursor": 99}, Code.NOT_FOUND)):
            with self.subTest(method=method, params=params):
                with self.assertRaises(InspectError) as caught:
                    self.agent.request(method, **params)
                self.assertEqual(caught.exception.code, code, str(caught.exception))
        # The connection has stayed.
        self.assertTrue(self.agent.objects())

    def test_an_agent_that_goes_is_told(self):
        self.switch.agent.send_signal(signal.SIGKILL)
        self.switch.agent.wait()
        with self.assertRaises(ConnectionError):
            self.agent.objects()
        self.assertTrue(self.agent.client.closed)

    def test_an_agent_that_does_not_answer_is_told(self):
        with Agent(self.switch.inspect, timeout=0.05) as agent:
            self.switch.agent.send_signal(signal.SIGSTOP)
            with self.assertRaises(TimeoutError):
                agent.objects()
            self.assertTrue(agent.client.closed)
            self.switch.agent.send_signal(signal.SIGCONT)
        self.assertTrue(self.agent.objects())

    def test_nobody_listens(self):
        with self.assertRaises(FileNotFoundError):
            Agent(os.path.join(self.switch.folder, "other"))


class Values(unittest.TestCase):
    def test_records_become_keys(self):
        key = hashable({"port": 3, "vlan": 100})
        self.assertEqual((key.port, key.vlan), (3, 100))
        self.assertEqual({key: 1}[hashable({"port": 3, "vlan": 100})], 1)
        self.assertEqual(hashable({"a": {"b": 1}, "c": [1, 2]}), ((1,), (1, 2)))
        self.assertEqual(hashable({"class": 1, "x y": 2}), (1, 2))
        self.assertEqual(hashable(5), 5)

    def test_a_ref_needs_no_agent_to_be_shown(self):
        self.assertEqual(repr(Ref(None, "a/b")), "Ref('a/b')")


if __name__ == "__main__":
    unittest.main()
