#!/usr/bin/env python3
"""vexlo-tcam's churn of new prefixes, placement weight files and `compare`, as an operator runs
them: what the headline and the JSON say, where a list of new prefixes starts over or runs dry,
and the bad files that must fail with one line and nothing written.

Usage: vexlo_tcam_churn_test.py PATH/TO/vexlo-tcam [TestCase.test_name ...]
Exit status 77 means skipped (CTest's SKIP_RETURN_CODE).
"""
import json
import os
import re
import subprocess
import sys
import unittest

import vexlo_tcam_test as base

SYN = ["--synthetic", "3000", "--progress", "never"]


def run(*args, stdin=None):
    return base.run(*args, stdin=stdin)


def phase(j, name):
    [p] = [p for p in j["timing"]["phases"] if p["name"] == name]
    return p


class Churn(unittest.TestCase):
    # The helpers of the other cases, without their tests.
    setUp, path, write, assertFailsCleanly = (base.Cli.setUp, base.Cli.path, base.Cli.write,
                                              base.Cli.assertFailsCleanly)

    # ---- churn of new prefixes
    def test_churn_new_reports_pairs_and_the_largest_insert_apart(self):
        args = ["simulate", *SYN, "--churn", "2001", "--churn-kind", "new"]
        code, out, err = run(*args)
        self.assertEqual(code, 0, err)
        code, js, err = run(*args, "--json", "-")
        j = json.loads(js)
        self.assertEqual(j["config"]["churn"], {"updates": 2001, "seed": 1, "kind": "new",
                                                "routes": None})
        self.assertIn("\nChurn: new prefixes from the generator (churn seed 1)\n", out)
        load, churn = phase(j, "load"), phase(j, "churn")
        # 1001 withdrawals and 1000 announces of routes the table did not hold.
        self.assertEqual((churn["operations"], churn["placed"]), (2001, 1000))
        self.assertEqual(j["routes"]["installed"], 3000 - 1)
        pair = j["moves"]["churnPerPair"]
        self.assertEqual(pair["pairs"], 1000)
        self.assertAlmostEqual(pair["mean"], churn["moves"] / 1000, places=4)
        self.assertIsNone(pair["stopped"])
        ins = j["moves"]["loadPerInsert"]
        self.assertEqual(ins["inserts"], load["placed"])
        self.assertAlmostEqual(ins["mean"], load["moves"] / load["placed"], places=4)
        # Nothing refused: the load's moves per route are its moves per insert, said once.
        self.assertRegex(out, rf"(?m)^Moves: load {ins['mean']:.2f} per route \(")
        self.assertIn(f"\nInserts: churn {pair['mean']:.2f} per withdraw+announce pair (1000 "
                      f"pairs)\n", out)
        big = j["moves"]["largestInsert"]
        self.assertEqual(big["kind"], "add")
        self.assertLessEqual(big["moves"], j["moves"]["perUpdate"]["max"])
        self.assertGreaterEqual(big["moves"], ins["max"])
        self.assertIn(f"\nLargest single insert: {big['moves']} moves: add {big['route']} "
                      f"({big['phase']}, operation {big['operation']})\n", out)

    def test_default_churn_is_still_reannounce(self):
        args = ["simulate", *SYN, "--churn", "500", "--json", "-"]
        a = json.loads(run(*args)[1])
        b = json.loads(run(*args, "--churn-kind", "reannounce")[1])
        self.assertEqual(a["config"]["churn"]["kind"], "reannounce")
        self.assertEqual(a["moves"], b["moves"])
        code, out, err = run("simulate", *SYN, "--churn", "500")
        self.assertNotIn("Churn:", out, "only churn of new prefixes names its source")

    def test_churn_routes_start_over_at_their_end(self):
        # One route in the table and two new ones: every withdrawal is forced, and the list
        # serves its routes in turn, starting over each time it is through.
        table = self.write("t.routes", "10.0.0.0/8\n")
        new = self.write("new.routes", "10.1.0.0/16\n10.2.0.0/16\n")
        code, out, err = run("simulate", "--routes", table, "--churn", "40", "--churn-kind", "new",
                             "--churn-routes", new, "--json", "-")
        self.assertEqual(code, 0, err)
        j = json.loads(out)
        self.assertEqual(j["moves"]["churnPerPair"]["pairs"], 20)
        self.assertIsNone(j["moves"]["churnPerPair"]["stopped"])
        self.assertEqual(j["moves"]["churnPerPair"]["restarts"], 10)
        self.assertEqual(j["config"]["churn"]["routes"], new)
        code, out, err = run("simulate", "--routes", table, "--churn", "40", "--churn-kind", "new",
                             "--churn-routes", new)
        self.assertIn(f"\nChurn: new prefixes from {new}, started over 10 times at its end\n",
                      out)

    def test_refused_routes_set_the_load_per_insert_apart(self):
        code, out, err = run("simulate", "--synthetic", "3000", "--synthetic-v6", "6000",
                             "--pairing", "--dynamic-border", "--progress", "never",
                             "--json", "-")
        j = json.loads(out)
        load = phase(j, "load")
        self.assertGreater(load["refused"], 0)
        code, out, err = run("simulate", "--synthetic", "3000", "--synthetic-v6", "6000",
                             "--pairing", "--dynamic-border", "--progress", "never")
        per_insert = load["moves"] / load["placed"]
        self.assertAlmostEqual(j["moves"]["loadPerInsert"]["mean"], per_insert, places=4)
        self.assertIn(f"\nInserts: load {per_insert:.2f} moves per route placed\n", out)

    def test_churn_routes_without_the_family_stop_the_churn(self):
        table = self.write("t.routes", "2001:db8::/32\n")
        new = self.write("new.routes", "10.1.0.0/16\n")
        code, out, err = run("simulate", "--routes", table, "--churn", "40", "--churn-kind", "new",
                             "--churn-routes", new)
        self.assertEqual(code, 0, "the run completes with what it could do")
        why = f"after 1 of 40 updates: --churn-routes {new} has no IPv6 route"
        self.assertIn(f"\n  churn stopped {why}\n", out)
        code, out, err = run("simulate", "--routes", table, "--churn", "40", "--churn-kind", "new",
                             "--churn-routes", new, "--json", "-")
        self.assertEqual(json.loads(out)["moves"]["churnPerPair"]["stopped"], why)

    def test_bad_churn_options_fail_cleanly(self):
        out_json = self.path("out.json")
        bad = self.write("bad.routes", "10.1.0.0/16\n10.2.0.0/16\n10.3.0.0/33\n")
        good = self.write("good.routes", "10.1.0.0/16\n")
        cases = [
            (["--churn-kind", "new", "--churn-routes", bad], bad + ":3: "),
            (["--churn-kind", "new", "--churn-routes", self.path("none")], "no such file"),
            (["--churn-kind", "new", "--churn-routes", self.write("e.routes", "# none\n")],
             "holds no route"),
            (["--churn-routes", good], "--churn-routes needs --churn-kind new"),
            (["--churn-kind", "newer"], "--churn-kind: newer not in"),
        ]
        for extra, want in cases:
            with self.subTest(extra=extra):
                code, out, err = run("simulate", *SYN, "--churn", "10", *extra, "--json",
                                     out_json)
                self.assertFailsCleanly(code, out, err, [out_json])
                self.assertIn(want, err)

    def test_fit_churns_new_prefixes_as_simulate_does(self):
        new = ["--churn", "400", "--churn-kind", "new"]
        routes = self.write("new.routes", "".join(f"10.{i}.{j}.0/24\n" for i in range(4)
                                                  for j in range(50)))
        for extra in ([], ["--churn-routes", routes]):
            with self.subTest(extra=extra):
                code, out, err = run("fit", *SYN, "--sizes", "2048", "--jobs", "2", *new, *extra,
                                     "--json", "-")
                self.assertEqual(code, 0, err)
                j = json.loads(out)
                self.assertEqual(j["churnKind"], "new")
                rows = j["fitting"]
                # Each configuration's churn is the one simulate runs on it alone.
                for r in rows[:2] + rows[-2:]:
                    code, out, err = run("simulate", *SYN, *r["options"].split(), *new, *extra,
                                         "--json", "-")
                    self.assertEqual(code, 0, err)
                    churn = phase(json.loads(out), "churn")
                    self.assertAlmostEqual(churn["moves"] / churn["operations"],
                                           r["movesPerUpdate"], places=6, msg=r["options"])
        code, out, err = run("fit", *SYN, "--sizes", "2048", "--churn", "400", "--json", "-")
        self.assertNotIn("churnKind", json.loads(out), "re-announcing stays as it was")
        code, out, err = run("fit", *SYN, "--sizes", "2048", "--churn-routes", routes)
        self.assertEqual((code, out), (2, ""), err)
        self.assertIn("--churn-routes needs --churn-kind new", err)

    # ---- placement weights from a file
    def test_weights_file_is_the_table_placement_uses(self):
        shipped = os.path.join(base.ROOT, "data", "internet-like.weights")
        args = ["simulate", *SYN, "--churn", "1000", "--placement", "weighted", "--json", "-"]
        builtin = json.loads(run(*args)[1])
        same = json.loads(run(*args, "--weights", shipped)[1])
        self.assertEqual(same["moves"], builtin["moves"], "the shipped file is the built-in table")
        self.assertEqual((builtin["config"]["weights"], same["config"]["weights"]),
                         (None, shipped))
        # All the weight on /8: the /24s that make most of the table get the smallest share.
        odd = self.write("odd.weights", "# one length only\nv4 /8 1000000\n")
        skewed = json.loads(run(*args, "--weights", odd)[1])
        self.assertNotEqual(skewed["moves"]["total"], builtin["moves"]["total"])
        code, out, err = run("simulate", *SYN, "--placement", "weighted", "--weights", odd)
        self.assertRegex(out, r"^vexlo-tcam: .*, weighted placement \(weights of " +
                         re.escape(odd) + r"\)\n")

    def test_bad_weights_fail_cleanly(self):
        out_json = self.path("out.json")
        good = self.write("good.weights", "v4 /24 10\n")
        cases = [
            ([good], "vexlo-tcam: --weights needs --placement weighted\n"),
            (["--placement", "weighted", "--weights",
              self.write("b.weights", "v4 /24 1\n\nv4 /33 1\n")],
             "b.weights:3: length '/33' is not /0 to /32"),
            (["--placement", "weighted", "--weights", self.dir], "is a directory"),
        ]
        for extra, want in cases:
            with self.subTest(extra=extra[-1]):
                if extra[0] == good:
                    extra = ["--weights", good]
                code, out, err = run("simulate", *SYN, *extra, "--json", out_json)
                self.assertFailsCleanly(code, out, err, [out_json])
                self.assertIn(want, err)
                self.assertLess(len(err), 200)

    # ---- compare
    def two_runs(self):
        files = [self.path("classic.json"), self.path("weighted.json")]
        for f, placement in zip(files, ("classic", "weighted")):
            code, _, err = run("simulate", *SYN, "--churn", "1000", "--churn-kind", "new",
                               "--placement", placement, "--json", f)
            self.assertEqual(code, 0, err)
        return files

    def test_compare_prints_two_runs_side_by_side(self):
        a, b = self.two_runs()
        code, out, err = run("compare", a, b)
        self.assertEqual(code, 0, err)
        ja, jb = (json.load(open(f)) for f in (a, b))
        self.assertTrue(out.startswith("vexlo-tcam compare: synthetic table (3000 IPv4, 0 IPv6, "
                                       "0 multicast, seed 1), 3000 routes\n"), out)

        def row(label):
            m = re.search(r"(?m)^  " + re.escape(label) + r" +(\S+(?: \S+)*?)  +(\S.*)$", out)
            self.assertTrue(m, label + "\n" + out)
            return m[1], m[2]

        self.assertEqual(row("placement"), ("classic", "weighted"))
        self.assertEqual(row("routes placed"), (str(ja["routes"]["placed"]),
                                                str(jb["routes"]["placed"])))
        self.assertEqual(row("churn: moves per pair"),
                         tuple(f"{j['moves']['churnPerPair']['mean']:.2f}" for j in (ja, jb)))
        self.assertEqual(row("load: moves per route placed"),
                         tuple(f"{j['moves']['loadPerInsert']['mean']:.2f}" for j in (ja, jb)))
        self.assertEqual(row("churn")[0], "1000 updates, new (seed 1)")
        # An output from before these figures existed compares, showing what it lacks as "-".
        for key in ("placement", "weights", "churn"):
            del ja["config"][key]
        del ja["moves"]["largestInsert"]
        ja["config"]["size"] = {"odd": "value"}
        older = self.write("older.json", json.dumps(ja))
        code, out, err = run("compare", older, b)
        self.assertEqual(code, 0, err)
        self.assertEqual(row("placement"), ("-", "weighted"))
        self.assertEqual(row("largest single insert")[0], "-")

    def test_compare_refuses_what_it_cannot_compare(self):
        a, _ = self.two_runs()
        report = self.path("c.html")
        other = self.path("other.json")
        run("simulate", "--synthetic", "2000", "--json", other)
        fit = self.path("fit.json")
        run("fit", "--synthetic", "500", "--sizes", "1024", "--jobs", "1", "--json", fit)
        cases = [
            (self.path("missing.json"), "cannot read '"),
            (self.write("broken.json", "{\"config\": "), "broken.json: not JSON"),
            (self.write("list.json", "[1, 2]"), "not the output of simulate --json (no \"config\")"),
            (fit, "fit.json: a fit result, not the output of simulate --json"),
            (other, "loaded different tables: synthetic table (3000 IPv4"),
        ]
        for second, want in cases:
            with self.subTest(second=os.path.basename(second)):
                code, out, err = run("compare", a, second, "--report", report)
                self.assertFailsCleanly(code, out, err, [report])
                self.assertIn(want, err)
        code, out, err = run("compare", a)
        self.assertEqual((code, out), (2, ""), err)

    def test_compare_report_renders_in_headless_chromium(self):
        a, b = self.two_runs()
        report = self.path("c.html")
        code, _, err = run("compare", a, b, "--report", report)
        self.assertEqual(code, 0, err)
        with open(report) as f:
            page = f.read()
        self.assertIn("<th>" + b + "</th>", page)
        check = subprocess.run([os.path.join(base.ROOT, "scripts", "check-report-render"), report,
                                "2"], capture_output=True, text=True, timeout=300)
        if check.returncode == base.SKIP:
            raise unittest.SkipTest(check.stdout + check.stderr)
        self.assertEqual(check.returncode, 0, check.stdout + check.stderr)


if __name__ == "__main__":
    base.TOOL = os.path.abspath(sys.argv[1])
    names = sys.argv[2:]
    suite = (unittest.defaultTestLoader.loadTestsFromNames(names, sys.modules[__name__])
             if names else unittest.defaultTestLoader.loadTestsFromTestCase(Churn))
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    all_skipped = result.skipped and result.testsRun == len(result.skipped)
    sys.exit(1 if not result.wasSuccessful() else base.SKIP if all_skipped else 0)
