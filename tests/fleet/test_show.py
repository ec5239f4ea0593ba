"""The show of `make fleet`, ten times faster: alerts of a real Prometheus fire for those that are broken, and for nobody else."""
import subprocess
from pathlib import Path

SHOW = Path(__file__).resolve().parents[2] / "bench" / "fleet"


def test_alerts_fire_and_resolve(server_path):
    done = subprocess.run([SHOW, "--units", "4", "--quick", "--no-stay", "--port", "0", "--server", server_path],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=200, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    for unit, alert in ((400, "TessaroLinkLost"), (401, "TessaroServerSilent"), (402, "TessaroUnitAway")):
        assert f"unit {unit}: {alert} is firing" in done.stdout
    assert "unit 403:" not in done.stdout
    assert "nothing is firing any more" in done.stdout
