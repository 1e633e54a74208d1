"""The application monitor's view of the daemon: it is asked, gets heartbeats, is told of the end."""
import threading
import time

from device import BIN, Device, end, wait_for


def test_watched_from_the_first_yes_to_the_end():
    with Device() as device:
        monitor = device.start(BIN / "orla-appmon", "--refuse", "1")
        said = []

        def listen():
            for line in monitor.stdout:
                said.append((line.strip().partition(": ")[2], time.monotonic()))

        listener = threading.Thread(target=listen)
        listener.start()
        wait_for(lambda: said, "monitor")
        daemon = device.daemon(join=True)
        wait_for(lambda: len(said) == 5, "two heartbeats")
        code, seconds = end(daemon)
        assert code == 0 and seconds < 3
        wait_for(lambda: len(said) == 7, "end of the connection")
        monitor.terminate()
        listener.join()
        assert [words for words, _ in said[1:]] == [
            "refused",
            "registered, timeout 9000 ms, script /var/ide_daemon_monitor.sh",
            "heartbeat 1", "heartbeat 2",
            "deregistered: ide daemon monitor exit.", "gone",
            "registrations 1, refusals 1, heartbeats 2, deregistrations 1"]
        times = [when for _, when in said]
        assert times[2] - times[1] > 0.8 and times[4] - times[3] > 2.8
