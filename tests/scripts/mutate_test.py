"""How scripts/mutate names mutants, judges a run and checks its lists."""
import importlib.machinery
import importlib.util
import sys
import unittest
from types import SimpleNamespace

mutate = None


def mutant(identity):
    return SimpleNamespace(identity=identity, path="src/a.cpp", line=3)


def results(**outcomes):
    return [(mutant(identity), outcome, "") for identity, outcome in outcomes.items()]


KILLED = {"k%d" % i: "killed" for i in range(19)}


class Verdict(unittest.TestCase):
    def verdict(self, outcomes, strict, survivors=(), wrong=(), threshold=95.0):
        return mutate.exit_status(results(**outcomes), dict.fromkeys(survivors, "why"), list(wrong),
                                  strict, threshold)

    def test_a_listed_survivor_is_explained(self):
        outcomes = {**KILLED, "alive": "survived"}
        self.assertEqual(self.verdict(outcomes, True, ["alive"]), 0)
        self.assertEqual(self.verdict(outcomes, True, ["other"]), 1)
        self.assertEqual(self.verdict(outcomes, False), 0)

    def test_a_listed_survivor_counts_as_one(self):
        outcomes = {**KILLED, "a": "survived", "b": "survived"}  # 19 of 21
        for strict in (False, True):
            self.assertEqual(self.verdict(outcomes, strict, ["a", "b"]), 1)
            self.assertEqual(self.verdict(outcomes, strict, ["a", "b"], threshold=90.0), 0)

    def test_equivalent_and_invalid_ones_do_not_count(self):
        self.assertEqual(self.verdict({**KILLED, "e": "equivalent", "i": "invalid"}, True,
                                      threshold=100.0), 0)

    def test_nothing_judged_is_no_success(self):
        for threshold in (0.0, 95.0):
            self.assertEqual(self.verdict({"i": "invalid"}, False, threshold=threshold), 1)
            self.assertEqual(self.verdict({"l": "left"}, False, threshold=threshold), 1)
            self.assertEqual(self.verdict({}, False, threshold=threshold), 1)

    def test_wrong_lists_fail_a_strict_run(self):
        self.assertEqual(self.verdict(KILLED, True, wrong=["listed but no mutant"]), 1)
        self.assertEqual(self.verdict(KILLED, False, wrong=["listed but no mutant"]), 0)


class Fill(unittest.TestCase):
    others = [mutant("m%02d" % i) for i in range(50)]

    def names(self, chosen, commit="c"):
        return [m.identity for m in mutate.filled(chosen, self.others, 20, commit)]

    def test_others_are_added_once_up_to_the_number(self):
        names = self.names(self.others[:3])
        self.assertEqual(names[:3], ["m00", "m01", "m02"])
        self.assertEqual(len(names), 20)
        self.assertEqual(len(set(names)), 20)

    def test_enough_changed_ones_stay_as_they_are(self):
        self.assertEqual(self.names(self.others[:25]), [m.identity for m in self.others[:25]])

    def test_the_commit_decides_which(self):
        self.assertEqual(self.names([]), self.names([]))
        self.assertNotEqual(set(self.names([])), set(self.names([], "d")))

    def test_there_may_be_fewer(self):
        few = mutate.filled([], self.others[:4], 20, "c")
        self.assertEqual({m.identity for m in few}, {"m00", "m01", "m02", "m03"})


class Lists(unittest.TestCase):
    def test_what_is_listed_is_there_once_with_a_reason(self):
        there = [mutant(i) for i in ("a", "b", "c")]
        self.assertEqual(mutate.wrong_entries({"a": "why"}, {"b": "why"}, there), [])
        self.assertEqual(mutate.wrong_entries({"x": "why"}, {"y": "why"}, there),
                         ["listed but no mutant: x why", "listed but no mutant: y why"])
        self.assertEqual(mutate.wrong_entries({"a": ""}, {}, there), ["listed without a reason: a"])
        self.assertEqual(mutate.wrong_entries({"a": "why"}, {"a": "why"}, there), ["in both lists: a"])

    def test_what_turned_out_otherwise_is_outdated(self):
        equivalent, survivors = {"e": "why"}, {"s": "why"}
        outdated = lambda **outcomes: mutate.outdated_entries(equivalent, survivors, results(**outcomes))
        self.assertEqual(outdated(e="equivalent", s="survived", other="killed"), [])
        self.assertEqual(outdated(e="killed"), ["listed as equivalent but killed: e src/a.cpp:3"])
        self.assertEqual(outdated(s="killed"), ["listed as a survivor but killed: s src/a.cpp:3"])
        self.assertEqual(outdated(s="equivalent"),
                         ["listed as a survivor but equivalent: s src/a.cpp:3"])


SOURCE = """static int first(int a)
{
    if (a < 3) // a remark
        return a + 1;
    first(1); // before
    second(2);
    return 0;
}

static int second(int a)
{
    return a + 1;
}
"""


class Identities(unittest.TestCase):
    def identities(self, source):
        mutants = mutate.mutants_of("src/a.cpp", source)
        mutate.number_mutants(mutants)
        return {m.identity: m for m in mutants}

    def test_every_mutant_has_its_own(self):
        mutants = mutate.mutants_of("src/a.cpp", SOURCE)
        self.assertEqual(len(self.identities(SOURCE)), len(mutants))
        self.assertGreater(len(mutants), 10)

    def test_layout_comments_and_names_elsewhere_change_none(self):
        edited = SOURCE.replace(" // a remark", "").replace("// before", "// 1").replace("    return a + 1", "  return a  +\n 1")
        self.assertEqual(set(self.identities(edited)), set(self.identities(SOURCE)))
        longer = SOURCE + "static int third(int b)\n{\n    return b - 7;\n}\n"
        self.assertLess(set(self.identities(SOURCE)), set(self.identities(longer)))

    def test_only_mutants_near_an_edit_change(self):
        gone = set(self.identities(SOURCE)) - set(self.identities(SOURCE.replace("a < 3", "a < 4")))
        self.assertTrue(gone)
        for identity in gone:
            self.assertEqual(self.identities(SOURCE)[identity].line, 3)


if __name__ == "__main__":
    sys.dont_write_bytecode = True  # nothing beside the script
    loader = importlib.machinery.SourceFileLoader("mutate", sys.argv.pop(1))
    mutate = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
    loader.exec_module(mutate)
    unittest.main()
