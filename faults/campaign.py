#!/usr/bin/python3
"""Runs experiments and prints their table. Started by faults/run."""
import argparse
import atexit
import importlib
import os
import pathlib
import random
import shutil
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE / "experiments")]
import base  # noqa: E402
import results  # noqa: E402

# Trials of a short pass, where an experiment's own number takes too long for it.
QUICK_TRIALS = {"powercut": 10, "bareloop-wal": 20, "bareloop-extra": 20, "bareloop-full": 20}
NOT_QUICK = {"holds"}  # 113 s of a short pass


def known():
    """{name: class} of all experiments, in the order of their names."""
    found = {}
    for path in sorted((HERE / "experiments").glob("*.py")):
        module = importlib.import_module(path.stem)
        for kind in vars(module).values():
            if isinstance(kind, type) and issubclass(kind, base.Experiment) and kind.name \
                    and kind.__module__ == path.stem:
                found[kind.name] = kind
    return found


def parse_arguments(experiments):
    parser = argparse.ArgumentParser(
        prog="faults/run", description="Real faults against the real daemon.",
        epilog="Experiments: " + ", ".join(experiments))
    parser.add_argument("names", metavar="NAME", nargs="*", help="an experiment; default: all")
    parser.add_argument("--trials", type=int, help="instead of the experiment's own number")
    parser.add_argument("--first", type=int, default=1, help="number of the first trial")
    parser.add_argument("--seed", type=int, help="default: a new one, which is printed")
    parser.add_argument("--quick", action="store_true", help="a short pass")
    parser.add_argument("--write", action="store_true",
                        help="makes the table of docs/faults.md anew, the rows of what was run")
    options = parser.parse_args()
    for name in options.names:
        if name not in experiments:
            parser.error(f"no experiment {name}; there are: {', '.join(experiments)}")
    return options


def chosen(experiments, quick):
    return [name for name in experiments if not (quick and name in NOT_QUICK)]


def main():
    experiments = known()
    options = parse_arguments(experiments)
    base.settle_in()
    if "KIV_COPIED_BUILD" in os.environ:
        atexit.register(shutil.rmtree, os.environ["KIV_COPIED_BUILD"])
    if options.quick:
        os.environ["KIV_FAULTS_QUICK"] = "yes"
    seed = random.SystemRandom().randrange(1, 10**6) if options.seed is None else options.seed
    done = []
    for name in options.names or chosen(experiments, options.quick):
        experiment = experiments[name](seed)
        usual = experiment.trials
        if options.quick:
            usual = QUICK_TRIALS.get(name, experiment.quick_trials)
        result = base.run(experiment, options.trials or usual, options.first)
        done.append(result)
        if options.write:  # after each: a long campaign may be broken off
            results.write([result])
        print(f"{name} (seed {seed}): {result.trials} trials in {result.seconds:.1f} s, "
              f"{result.verdict()}", *result.remarks, sep="\n  ", flush=True)
    table = base.Result.HEAD + "".join(result.row() for result in done)
    print("\n" + table, end="")
    folder = base.ROOT / "build/faults"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "table.md").write_text(table)
    return 0 if all(result.held() for result in done) else 1


if __name__ == "__main__":
    sys.exit(main())
