#!/usr/bin/env python3
"""Whether tshark decrypts every ESP packet of a run with rekeys from the exported keys.

usage: capture_test.py PROGRAM SCENARIO
"""
import json
import os
import subprocess
import sys
import tempfile

# What the scenario says, and what it is changed to for each capture.
USUAL_SA = "{encryption: aes-256-gcm-16, integrity: sha256}"
SUITES = {
    "AES-GCM": USUAL_SA,
    "AES-CBC with HMAC-SHA-256": "{encryption: aes-128-cbc, integrity: sha256}",
}
# Ports that tshark does not know to carry ESP.
DECODE = ["-d", "udp.port==4501,udpencap", "-d", "udp.port==4502,udpencap"]
INNER_MARK = "54534c50"  # "TSLP": every inner packet of the lab begins with it.


def check(holds, what):
    if not holds:
        sys.exit("FAILED: " + what)


def run_lab(program, scenario, folder):
    """Runs the scenario; returns how many packets its data paths sent."""
    files = {name: os.path.join(folder, name) for name in ("report", "capture", "keys")}
    subprocess.run(
        [program, "run", "--quiet", scenario, "--json", files["report"], "--pcap",
         files["capture"], "--esp-keys", files["keys"]], check=True)
    check(os.stat(files["keys"]).st_mode & 0o077 == 0, "others can read the keys")
    with open(files["report"], encoding="utf-8") as report:
        routers = json.load(report)["routers"]
    with open(files["keys"], encoding="utf-8") as keys:
        lines = keys.read().splitlines()
    return sum(path["sent_packets"] for router in routers for path in router["paths"]), lines


def dissect(folder, key_lines):
    """What tshark makes of the capture: one (spi, protocols, icv_good, inner data) per frame."""
    with open(os.path.join(folder, "esp_sa"), "w", encoding="utf-8") as table:
        table.write("\n".join(key_lines) + "\n")
    fields = ["esp.spi", "frame.protocols", "esp.icv_good", "data.data"]
    output = subprocess.run(
        ["tshark", "-r", os.path.join(folder, "capture"), "-o", "esp.enable_encryption_decode:TRUE",
         "-o", "esp.enable_authentication_check:TRUE", *DECODE, "-T", "fields", "-E", "separator=|",
         *(argument for field in fields for argument in ("-e", field))],
        check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
        env={**os.environ, "WIRESHARK_CONFIG_DIR": folder}).stdout
    return [line.split("|") for line in output.splitlines()]


def is_open(frame):
    _, protocols, icv_good, data = frame
    return ("esp:ip:udp:data" in protocols and icv_good == "1" and data.startswith(INNER_MARK))


def check_suite(name, program, scenario_text, folder):
    scenario = os.path.join(folder, "scenario.yaml")
    with open(scenario, "w", encoding="utf-8") as file:
        file.write(scenario_text)
    sent, key_lines = run_lab(program, scenario, folder)
    frames = dissect(folder, key_lines)
    check(len(frames) == sent > 1000, f"{name}: {len(frames)} frames for {sent} packets sent")
    closed = [frame[0] for frame in frames if not is_open(frame)]
    check(not closed, f"{name}: {len(closed)} of {sent} packets stayed closed, SPIs {set(closed)}")
    # Three paths, two directions: keys of the beginning, of the SA rekey and of the DH rekey.
    spis = {frame[0] for frame in frames}
    check(len(key_lines) == 18 and len(spis) == 18, f"{name}: {len(spis)} SPIs")

    # Without its key a packet stays closed, so that the above says something.
    spi = key_lines[0].split(",")[3].strip('"')
    without = dissect(folder, key_lines[1:])
    check({frame[0] for frame in without if not is_open(frame)} == {spi},
          f"{name}: without a key other packets than its own stay closed")
    print(f"{name}: all {sent} ESP packets of {len(spis)} SAs decrypted")


def main():
    program, scenario = sys.argv[1:]
    with open(scenario, encoding="utf-8") as file:
        text = file.read()
    check(USUAL_SA in text, "the scenario has other SAs")
    for name, suite in SUITES.items():
        with tempfile.TemporaryDirectory() as folder:
            check_suite(name, program, text.replace(USUAL_SA, suite), folder)


main()
