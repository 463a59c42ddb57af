"""Real clients that fetch many files of the site at once.

Each function starts one program and returns a Download. Several programs can run at the same time. `check` waits for
the end of the program and compares every file with the site.
"""

import hashlib
import json
import os
import pathlib
import subprocess

from upstreams import HERE

# Upstreams and mivo listen on IPv4 only. Node 18 would only try the first address of localhost, which is often ::1.
ENVIRONMENT = {"PATH": os.environ["PATH"], "HOME": "/nonexistent", "LC_ALL": "C.UTF-8",
               "NODE_OPTIONS": "--dns-result-order=ipv4first"}
PATIENCE = 60  # seconds; a client that runs longer fails the test


def run(*command, **options):
    """Runs a client to its end and returns what it printed."""
    done = subprocess.run(command, env=ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          timeout=PATIENCE, check=False, **options)
    assert done.returncode == 0, f"{command} gave {done.returncode}: {done.stdout[-2000:]!r}"
    return done.stdout.decode()


def curl(*arguments):
    return run("curl", "-q", "--silent", "--show-error", "--noproxy", "*", *arguments)


class Download:
    def __init__(self, base, names, command, read_digests):
        self.names = names
        self.base = base
        self.read_digests = read_digests
        self.process = subprocess.Popen(command, env=ENVIRONMENT, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE)

    def finish(self):
        try:
            output, _ = self.process.communicate(timeout=PATIENCE)
        finally:
            self.process.kill()
            self.process.wait()
        assert self.process.returncode == 0, f"{self.process.args[0]} {self.base}: {self.process.returncode}"
        return output.decode()

    def check(self, site):
        """Returns what the client printed."""
        output = self.finish()
        digests = self.read_digests(output)
        wrong = [name for name in self.names if digests.get(name) != site.digests[name]]
        assert not wrong, f"{self.process.args[0]} {self.base}: {wrong}"
        return output


def digests_below(folder, names):
    def read(_):
        return {name: hashlib.sha256((folder / name).read_bytes()).hexdigest() for name in names}
    return read


def own_folder(folder, name, base):
    path = pathlib.Path(folder, name + "_" + base.rpartition("/")[2].replace(":", "_"))
    path.mkdir()
    return path


def curl_files(folder, base, names):
    """One curl, one file after the other. curl prints a line for each file: the number of connections it opened."""
    target = own_folder(folder, "curl", base)
    config = target / "config"
    config.write_text("".join(f'url = "{base}/{name}"\noutput = "{target / name}"\n' for name in names))
    command = ["curl", "-q", "--silent", "--show-error", "--fail", "--noproxy", "*", "--create-dirs",
               "--write-out", "%{num_connects}\n", "--config", config]
    return Download(base, names, command, digests_below(target, names))


def wget_files(folder, base, names):
    """One wget, one file after the other."""
    target = own_folder(folder, "wget", base)
    urls = target / "urls"
    urls.write_text("".join(f"{base}/{name}\n" for name in names))
    command = ["wget", "--no-config", "--no-proxy", "--quiet", "--tries=1", "--force-directories",
               "--no-host-directories", "--directory-prefix", target, "--input-file", urls]
    return Download(base, names, command, digests_below(target, names))


def fetch_files(base, names, parallel=8):
    """Node's fetch, several files at a time."""
    command = ["node", HERE / "fetch_site.js", str(parallel), *(f"{base}/{name}" for name in names)]
    def digests_printed(output):
        return {url[len(base) + 1:]: digest for url, digest in json.loads(output).items()}
    return Download(base, names, command, digests_printed)
