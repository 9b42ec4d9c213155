"""The measurements behind scripts/bench.

Every pair runs side by side: round by round, one after the other, on the same Graph service with
the same content.  What is printed is the median over the rounds, and the median of each round's
ratio.
"""

import argparse
import contextlib
import sys

import measuring
import uploads

MEASUREMENTS = {"http": measuring.Bench.measure_http, "https": measuring.Bench.measure_https,
                "listing": measuring.Bench.measure_listing, "small": measuring.Bench.measure_small,
                "start": measuring.Bench.measure_start, "memory": measuring.Bench.measure_memory,
                "upload": uploads.measure_upload, "upload-delay": uploads.measure_delay,
                "small-up": uploads.measure_small, "memory-store": uploads.measure_memory}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--only", default="")
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()
    if options.list:
        print("\n".join(MEASUREMENTS))
        return
    wanted = options.only.split(",") if options.only else MEASUREMENTS
    with contextlib.ExitStack() as stack:
        bench = measuring.Bench(stack, options.rounds)
        for name in wanted:
            print(f"measuring {name} …", file=sys.stderr)
            MEASUREMENTS[name](bench)
        bench.table()


if __name__ == "__main__":
    main()
