#!/usr/bin/python3
"""Exposure command to FITS file on disk through indiserver, side by side in one run: indi_tvx_ccd
on the 4096 x 4096 simulated chip (data/sim/sim_4k.def) and INDI's own CCD simulator set to
4096 x 4096. Both save locally (UPLOAD_LOCAL); a frame's time runs from the exposure command to
the exposure's Ok, which each driver sends once its file is on disk. Frames alternate between
the two drivers so that both meet the same machine. Prints each driver's frame times and the
ratio of the medians (indi_tvx_ccd over the simulator).

    /usr/bin/python3 bench/indi_side_by_side.py [--build build] [--frames 5] [--exposure 0.01]
"""
import argparse
import os
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
TVX, SIMULATOR = "tvx CCD", "CCD Simulator"


class Client:
    """A bare INDI client: requests out as XML, and a scan of what comes back for one update."""

    def __init__(self, port, deadline):
        while True:
            try:
                self.sock = socket.create_connection(("127.0.0.1", port))
                break
            except ConnectionRefusedError:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.05)
        self.text = ""
        self.send("<getProperties version='1.7'/>")

    def send(self, xml):
        self.sock.sendall(xml.encode())

    def new(self, kind, device, name, values):
        tag = {"Number": "oneNumber", "Switch": "oneSwitch", "Text": "oneText"}[kind]
        items = "".join(f"<{tag} name='{k}'>{v}</{tag}>" for k, v in values.items())
        self.send(f"<new{kind}Vector device='{device}' name='{name}'>{items}</new{kind}Vector>")

    def forget(self):
        """Drops what has come in so far: only later updates count."""
        self.sock.setblocking(False)
        try:
            while self.sock.recv(1 << 20):
                pass
        except BlockingIOError:
            pass
        self.sock.setblocking(True)
        self.text = ""

    def until(self, device, name, states, timeout):
        """Waits for `device`.`name` to be told in one of `states`; returns the state."""
        pattern = re.compile(
            r"<(?:set|def)\w+Vector[^>]*device=['\"]%s['\"][^>]*name=['\"]%s['\"][^>]*state=['\"](\w+)"
            % (re.escape(device), re.escape(name)))
        deadline = time.monotonic() + timeout
        while True:
            for m in pattern.finditer(self.text):
                if m.group(1) in states:
                    self.text = self.text[:m.start()] + self.text[m.end():]
                    return m.group(1)
            left = deadline - time.monotonic()
            if left <= 0:
                sys.exit(f"no {'/'.join(states)} from {device}.{name} within {timeout} s")
            self.sock.settimeout(left)
            chunk = self.sock.recv(1 << 20)
            if not chunk:
                sys.exit("indiserver closed the connection")
            self.text += chunk.decode(errors="replace")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(SOURCE, "build"))
    parser.add_argument("--frames", type=int, default=5)
    parser.add_argument("--exposure", type=float, default=0.01)
    args = parser.parse_args()
    driver = os.path.join(os.path.abspath(args.build), "drivers", "indi", "indi_tvx_ccd")
    for program in ("indiserver", "indi_simulator_ccd"):
        if shutil.which(program) is None:
            sys.exit(f"{program} is not installed (Debian package indi-bin)")
    if not os.access(driver, os.X_OK):
        sys.exit(f"{driver} is not built")

    work = tempfile.mkdtemp(prefix="indi-bench-")
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    env = dict(os.environ, HOME=work)
    log = open(os.path.join(work, "indiserver.out"), "w")
    server = subprocess.Popen(["indiserver", "-p", str(port), "-u", os.path.join(work, "socket"),
                               "indi_simulator_ccd", driver], cwd=work, env=env, stdout=log,
                              stderr=subprocess.STDOUT)
    try:
        c = Client(port, time.monotonic() + 20)
        c.until(TVX, "CONNECTION", ("Idle", "Ok", "Alert"), 20)
        c.until(SIMULATOR, "CONNECTION", ("Idle", "Ok", "Alert"), 20)
        c.new("Number", SIMULATOR, "SIMULATOR_SETTINGS", {"SIM_XRES": 4096, "SIM_YRES": 4096})
        c.new("Text", TVX, "TVX_DEFINITIONS",
              {"HARDWARE": os.path.join(SOURCE, "data", "sim", "7100hw.def"),
               "CCD": os.path.join(SOURCE, "data", "sim", "sim_4k.def")})
        for device in (SIMULATOR, TVX):
            c.forget()
            c.new("Switch", device, "CONNECTION", {"CONNECT": "On"})
            if c.until(device, "CONNECTION", ("Ok", "Alert"), 60) != "Ok":
                sys.exit(f"{device} did not connect; see {work}")
            c.until(device, "UPLOAD_MODE", ("Idle", "Ok"), 20)
            c.new("Switch", device, "UPLOAD_MODE", {"UPLOAD_LOCAL": "On"})
            folder = os.path.join(work, device.split()[0].lower())
            os.makedirs(folder)
            c.new("Text", device, "UPLOAD_SETTINGS",
                  {"UPLOAD_DIR": folder, "UPLOAD_PREFIX": "frame_XXX"})

        def frame(device):
            c.forget()
            start = time.monotonic()
            c.new("Number", device, "CCD_EXPOSURE", {"CCD_EXPOSURE_VALUE": args.exposure})
            if c.until(device, "CCD_EXPOSURE", ("Ok", "Alert"), 600) != "Ok":
                sys.exit(f"{device} failed an exposure; see {work}")
            return time.monotonic() - start

        times = {SIMULATOR: [], TVX: []}
        for n in range(args.frames + 1):
            for device in times:
                took = frame(device)
                if n > 0:  # the first frame of each sets its buffers up
                    times[device].append(took)
        for device in times:
            files = os.listdir(os.path.join(work, device.split()[0].lower()))
            if len(files) != args.frames + 1:
                sys.exit(f"{device} left {len(files)} files for {args.frames + 1} frames")

        print(f"exposure command to FITS file on disk, 4096 x 4096, {args.exposure:g} s, "
              f"{args.frames} frames each after one to warm up")
        medians = {}
        for device, label in ((SIMULATOR, "indi_simulator_ccd"), (TVX, "indi_tvx_ccd")):
            t = times[device]
            medians[device] = statistics.median(t)
            print(f"  {label:20} median {medians[device]:6.3f} s  "
                  f"(min {min(t):.3f}, max {max(t):.3f})")
        print(f"  ratio                {medians[TVX] / medians[SIMULATOR]:6.2f}  "
              f"(indi_tvx_ccd / indi_simulator_ccd; aim: at most 0.3)")
    finally:
        server.terminate()
        server.wait(10)
        log.close()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
