"""The commands of a page of docs/, each below the comment that names it, and a place to run them."""

import contextlib
import grp
import os
import pathlib
import pwd
import re
import shutil
import signal
import subprocess
import tempfile
import textwrap

from mivo_process import PROGRAM, REPOSITORY, ReservedPort

PATIENCE = 60  # seconds; commands that run longer fail the test
BLOCK = re.compile(r"^( *)<!-- ([^>:]+)(?:: ([^>]+))? -->\n\1```(?:sh|ini)\n(.*?)^\1```$", re.DOTALL | re.MULTILINE)


def blocks(page):
    """{(kind, name): text} of the commands of a page. Every fenced text of a page has to follow such a comment."""
    text = (REPOSITORY / "docs" / page).read_text()
    found = {(kind, name): textwrap.dedent(block) for _, kind, name, block in BLOCK.findall(text)}
    assert len(found) == text.count("```") // 2
    return found


@contextlib.contextmanager
def ended_in_good_order():
    """A list for programs of type Mivo: at the end each has to end by SIGINT, and none is left."""
    started = []
    yield started
    try:
        for mivo in started:
            mivo.interrupt()
    finally:
        for mivo in started:
            mivo.kill()


class House:
    """A folder that plays the machine on which the commands run. It has its own /etc, its own ports, and a systemctl
    that only logs its arguments. An existing group plays the group of the service."""

    def __init__(self, ports):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="mivo_house_"))
        self.folder.chmod(0o755)  # the user of the service has to pass through this folder
        self.ports = {port: ReservedPort() for port in ports}
        self.is_root = os.geteuid() == 0
        self.user = "nobody" if self.is_root else pwd.getpwuid(os.geteuid()).pw_name
        self.group = "nogroup" if self.is_root else grp.getgrgid(os.getegid()).gr_name
        self.etc_mivo = self.folder / "etc/mivo"
        self.letsencrypt = self.folder / "etc/letsencrypt"
        self.authorities = self.folder / "authorities"
        self.bundle = self.folder / "certs/ca-certificates.crt"
        self.asked = self.folder / "asked"
        for path in (self.etc_mivo, self.letsencrypt / "renewal-hooks/deploy", self.authorities, self.bundle.parent,
                     self.folder / "hooks", self.folder / "bin"):
            path.mkdir(parents=True)
        (self.folder / "bin/mivo").symlink_to(PROGRAM)
        systemctl = self.folder / "bin/systemctl"
        self.systemd_fails = self.folder / "systemd_fails"  # while this file is there
        systemctl.write_text(f'#!/bin/sh\necho "$*" >>{self.asked}\n[ ! -e {self.systemd_fails} ]\n')
        systemctl.chmod(0o755)

    def place(self, text):
        """The text, with this house's ports, paths and users in place of those of the page."""
        text = re.sub(r"\b\d{2,5}\b", lambda match: str(self.port(int(match[0]))), text)
        for old, new in {
                "/etc/letsencrypt": self.letsencrypt, "/etc/mivo": self.etc_mivo,
                "/usr/local/share/ca-certificates": self.authorities, "-g mivo": f"-g {self.group}",
                "update-ca-certificates": f"/usr/sbin/update-ca-certificates --localcertsdir {self.authorities} "
                                          f"--etccertsdir {self.bundle.parent} --hooksdir {self.folder}/hooks",
                "runuser -u mivo --": f"runuser -u {self.user} --" if self.is_root else "env"}.items():
            text = text.replace(old, str(new))
        return text

    def port(self, number):
        return self.ports[number].port if number in self.ports else number

    def environment(self):
        return {"PATH": f"{self.folder}/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(self.folder),
                "LC_ALL": "C.UTF-8"}

    def run(self, text, expected_status=0):
        """Runs commands as pasted into a shell, and returns what they printed."""
        process = subprocess.Popen(["bash", "-c", self.place(text)], cwd=self.folder, env=self.environment(),
                                   start_new_session=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT)
        try:
            output = process.communicate(timeout=PATIENCE)[0].decode().replace("\r", "")
        finally:
            try:  # ends what failed commands have left behind; commands that worked have ended their servers themselves
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()
        assert process.returncode == expected_status, output
        return output

    def requests_to_systemd(self):
        return self.asked.read_text().splitlines() if self.asked.exists() else []

    def close(self):
        for port in self.ports.values():
            port.close()
        shutil.rmtree(self.folder)
