"""The application monitor's view of the daemon: it is asked, gets heartbeats, is told of the end."""
import time

from device import BIN, Device, end, wait_for


def test_watched_from_the_first_yes_to_the_end():
    with Device() as device:
        monitor = device.start(BIN / "orla-appmon", "--refuse", "1")
        wait_for(lambda: "listening" in monitor.stdout.readline(), "monitor")
        said = []

        def listen(count):
            for _ in range(count):
                line = monitor.stdout.readline().strip()
                said.append((line.partition(": ")[2], time.monotonic()))

        daemon = device.daemon(join=True)
        listen(4)
        code, seconds = end(daemon)
        assert code == 0 and seconds < 3
        listen(2)
        assert [words for words, _ in said] == [
            "refused",
            "registered, timeout 9000 ms, script /var/ide_daemon_monitor.sh",
            "heartbeat 1", "heartbeat 2",
            "deregistered: ide daemon monitor exit.", "gone"]
        times = [when for _, when in said]
        assert times[1] - times[0] > 0.9 and times[2] - times[1] < 0.9 and times[3] - times[2] > 2.9
        monitor.terminate()
        assert "heartbeats 2, deregistrations 1" in monitor.stdout.read()
        assert monitor.wait(10) == 0
