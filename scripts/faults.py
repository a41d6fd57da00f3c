"""Drives the fault sweep (see scripts/faults): one zephhost.exe per scenario,
started again after the fault that crashed or hung it, on two workers with a
Wine prefix each, and one table."""
import os
import pathlib
import queue
import subprocess
import sys
import threading
import time

build = pathlib.Path(sys.argv[1]).resolve()
budget = float(os.environ.get("FAULTS_BUDGET", "0"))
calls = os.environ.get("FAULTS_CALLS", "1")
workers = 2
bin_dir = build / "bin"
host = str(bin_dir / "zephhost.exe")


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


class Worker:
    """A Wine prefix of the worker's own: its services, pipes and registry are
    apart from the suites' and the other worker's."""

    def __init__(self, number):
        self.folder = build / "faults" / str(number)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.env = dict(os.environ, WINEPREFIX=str(self.folder / "wineprefix"), WINEDEBUG="-all",
                        WINEARCH="win64")

    def start(self):
        if not (self.folder / "wineprefix" / "system.reg").exists():
            subprocess.run(["wine", "wineboot", "--init"],
                           env=dict(self.env, WINEDLLOVERRIDES="mscoree,mshtml="),
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
            subprocess.run(["wineserver", "-w"], env=self.env, check=True)
        # One server for the whole sweep, so each start is cheap.
        subprocess.run(["wineserver", "-p"], env=self.env, stdin=subprocess.DEVNULL, check=True)
        self.wine("cmd", "/c", "exit")
        self.wine(str(bin_dir / "trustroot.exe"), windows_path(build / "pki" / "root.der"))
        self.wine(str(bin_dir / "tbctl.exe"), "agent", "remove")
        self.wine(str(bin_dir / "tbctl.exe"), "install")

    def stop(self):
        self.wine(str(bin_dir / "tbctl.exe"), "agent", "remove")
        self.wine(str(bin_dir / "tbctl.exe"), "remove")
        subprocess.run(["wineserver", "-k"], env=self.env)

    def wine(self, *arguments, timeout=None):
        """Runs a Windows program; its output goes through a file, because a
        Wine helper it starts may keep a pipe open as long as the server lives."""
        out = self.folder / "output.txt"
        with open(out, "wb") as sink:
            try:
                status = subprocess.run(["wine", *arguments], env=self.env, stdout=sink,
                                        stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                        timeout=timeout).returncode
            except subprocess.TimeoutExpired:
                status = None
        return status, out.read_text(errors="replace")

    def sweep(self, scenario, seconds):
        """Every fault of one scenario; answers its row."""
        row = dict(functions=set(), of=0, injected=0, fired=0, crashes=0, hangs=0, leaks=0, losses=0,
                   bad=0, problems=[])
        first = 0
        deadline = time.monotonic() + seconds if seconds else None
        while True:
            left = max(1, int((deadline - time.monotonic()) * 1000)) if deadline else 10**9
            status, output = self.wine(host, windows_path(bin_dir / "zephExt_TarnClient.dll"),
                                       "--sweep", scenario, str(first), calls, str(left),
                                       timeout=900)
            begun = None
            finished = False
            for line in output.splitlines():
                words = line.split()
                if not words:
                    continue
                if words[0] == "dry":
                    row["of"] = int(words[-1].split("=")[1])
                    if words[1] != "ok":
                        row["problems"].append("without faults: " + line)
                elif words[0] == "begin":
                    begun = words[1:4]
                elif words[0] == "fault":
                    begun = None
                    function, call, fired, verdict = words[2], words[3], words[4], words[6:]
                    row["functions"].add(function)
                    row["injected"] += 1
                    row["fired"] += int(fired.split("=")[1])
                    first = int(words[1]) + 1
                    if verdict == ["setup-failed"]:
                        row["injected"] -= 1
                        row["problems"].append(f"{function} call {call}: not run, set-up failed")
                    elif verdict != ["ok"]:
                        row["leaks"] += any(v.startswith("leak=") for v in verdict)
                        row["losses"] += any(v.startswith("loss=") for v in verdict)
                        row["bad"] += any(v.startswith("result=") or v == "torn-log"
                                          for v in verdict)
                        row["problems"].append(f"{function} call {call}: {' '.join(verdict)}")
                elif words[0] == "hang":
                    row["hangs"] += 1
                elif words[0] in ("done", "stopped"):
                    finished = True
            if finished:
                return row
            if begun is None:
                row["crashes"] += 1
                row["problems"].append(f"ended early (status {status}):\n{output[-2000:]}")
                return row
            index, function, call = begun
            row["functions"].add(function)
            row["injected"] += 1
            row["fired"] += 1
            if f"hang {index}" in output:
                row["problems"].append(f"{function} call {call}: hang")
            else:
                row["crashes"] += 1
                row["problems"].append(f"{function} call {call}: crash (status {status})")
            first = int(index) + 1


def main():
    team = [Worker(number) for number in range(workers)]
    starting = [threading.Thread(target=worker.start) for worker in team]
    for thread in starting:
        thread.start()
    for thread in starting:
        thread.join()
    status, output = team[0].wine(host, "--sweep-list")
    names = [line.split()[1] for line in output.splitlines() if line.startswith("scenario ")]
    todo = queue.Queue()
    for name in names:
        todo.put(name)
    rows = {}
    started = time.monotonic()

    def work(worker):
        while True:
            try:
                name = todo.get_nowait()
            except queue.Empty:
                return
            share = 0
            if budget:
                # What is left, shared among the scenarios not yet done.
                left = budget - (time.monotonic() - started)
                share = max(1.0, left * workers / (todo.qsize() + workers))
            rows[name] = worker.sweep(name, share)

    threads = [threading.Thread(target=work, args=(worker,)) for worker in team]
    try:
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    finally:
        for worker in team:
            worker.stop()

    columns = ["functions", "of", "injected", "fired", "crashes", "hangs", "leaks", "losses"]
    print(f"{'scenario':<20}" + "".join(f"{c:>10}" for c in columns))
    totals = dict.fromkeys(columns + ["bad"], 0)
    for name in names:
        row = rows[name]
        row["functions"] = len(row["functions"])
        print(f"{name:<20}" + "".join(f"{row[c]:>10}" for c in columns))
        for column in totals:
            totals[column] += row[column]
    print(f"{'all':<20}" + "".join(f"{totals[c]:>10}" for c in columns))
    for name in names:
        for problem in rows[name]["problems"]:
            print(f"  {name}: {problem}")
    print("(of: the scenario's faults; fewer injected: the budget ran out first)")
    print(f"in {time.monotonic() - started:.0f} s; results outside their export's codes or "
          f"torn log records: {totals['bad']}")
    print(f"faults: {totals['injected']} injected, {totals['fired']} fired, "
          f"{totals['crashes']} crashes, {totals['hangs']} hangs, {totals['leaks']} leaks, "
          f"{totals['losses']} losses")
    failed = any(totals[c] for c in ("crashes", "hangs", "leaks", "losses", "bad"))
    return 1 if failed else 0


sys.exit(main())
