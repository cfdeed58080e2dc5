"""Runs a flat interface host against the flat test server process.

Usage: run_with_server.py <server executable> <test data folder> -- <host command...>
In the host command, {port} becomes the server's port and {cache} a fresh cache folder. The server is stopped
by its process id when the host ends, whatever its outcome."""

import subprocess
import sys
import tempfile


def main():
    separator = sys.argv.index("--")
    server_executable, data_folder = sys.argv[1:separator]
    host = sys.argv[separator + 1:]

    server = subprocess.Popen([server_executable, data_folder], stdout=subprocess.PIPE, text=True)
    try:
        first_line = server.stdout.readline().split()
        if len(first_line) != 2 or first_line[0] != "port":
            print("flat test server did not start", file=sys.stderr)
            return 1
        port = first_line[1]
        with tempfile.TemporaryDirectory(prefix="norvane-flat-") as cache:
            command = [part.replace("{port}", port).replace("{cache}", cache) for part in host]
            return subprocess.run(command).returncode
    finally:
        server.terminate()
        server.wait()


if __name__ == "__main__":
    sys.exit(main())
