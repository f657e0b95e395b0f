"""The panel in Python beside the demo device."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

PANEL = Path(__file__).parents[3] / "examples" / "python" / "panel.py"
DEVICE = os.environ.get("QOR_DEVICE", "")


@pytest.mark.skipif(not DEVICE, reason="QOR_DEVICE does not name the demo device")
def test_the_panel_joins_the_demo_device_and_ends_with_it() -> None:
    device = subprocess.Popen([DEVICE, "--seconds", "3"], stdout=subprocess.DEVNULL)
    try:
        panel = subprocess.run([sys.executable, PANEL], capture_output=True, text=True, timeout=120)
        assert device.wait(120) == 0
    finally:
        device.kill()
    assert (panel.returncode, panel.stderr) == (0, "")
    lines = [line.removeprefix("python | ") for line in panel.stdout.splitlines()]
    assert lines[0] == 'device "first floor"'
    assert any(line.startswith("row 1: reading ") for line in lines)
    assert any(line.startswith("settings: [Sampler] period = ") for line in lines)
    assert any(line.startswith("ALARM: memory use ") for line in lines)
    assert lines[-1] == "the controller has ended"


@pytest.mark.skipif(not DEVICE, reason="QOR_DEVICE does not name the demo device")
def test_the_panel_says_that_there_is_no_device(tmp_path: Path) -> None:
    program = tmp_path / "panel.py"
    program.write_text(PANEL.read_text(encoding="utf-8").replace("PATIENCE = 20.0", "PATIENCE = 0.0"))
    panel = subprocess.run([sys.executable, program], capture_output=True, text=True)
    assert panel.returncode == 1
    assert panel.stderr == 'no thread has the name "device.controller": start scripts/demo first\n'
