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
    options = parser.parse_args()
    for name in options.names:
        if name not in experiments:
            parser.error(f"no experiment {name}; there are: {', '.join(experiments)}")
    return options


def main():
    experiments = known()
    options = parse_arguments(experiments)
    base.settle_in()
    if "KIV_COPIED_BUILD" in os.environ:
        atexit.register(shutil.rmtree, os.environ["KIV_COPIED_BUILD"])
    seed = random.SystemRandom().randrange(1, 10**6) if options.seed is None else options.seed
    results = []
    for name in options.names or experiments:
        experiment = experiments[name](seed)
        usual = experiment.quick_trials if options.quick else experiment.trials
        result = base.run(experiment, options.trials or usual, options.first)
        results.append(result)
        print(f"{name} (seed {seed}): {result.trials} trials in {result.seconds:.1f} s, "
              f"{result.verdict()}", *result.remarks, sep="\n  ", flush=True)
    table = base.Result.HEAD + "".join(result.row() for result in results)
    print("\n" + table, end="")
    folder = base.ROOT / "build/faults"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "table.md").write_text(table)
    return 0 if all(result.held() for result in results) else 1


if __name__ == "__main__":
    sys.exit(main())
