"""Servers to which real programs upload large bodies: Git and Subversion behind Apache, and a registry of images.

Each server has `port` and `close()`, and keeps everything in its own folder.
"""

import os
import pathlib
import subprocess

from mivo_process import ReservedPort
from upstreams import end
from wire import Wire, until

MODULES = "/usr/lib/apache2/modules"
GIT_BACKEND = "/usr/lib/git-core/git-http-backend"
# The clients use neither the machine's settings of Git and Subversion nor the settings of the user who runs the tests.
ENVIRONMENT = {"PATH": os.environ["PATH"], "HOME": "/nonexistent", "LC_ALL": "C.UTF-8",
               "GIT_CONFIG_NOSYSTEM": "1", "GIT_TERMINAL_PROMPT": "0"}


def run(*command, **options):
    done = subprocess.run(command, env=ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=60, check=False, **options)
    assert done.returncode == 0, f"{command} gave {done.returncode}: {done.stdout[-2000:]!r}"
    return done.stdout


class Server:
    """A program that listens on its own port, and that is ended by its process id."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.reserved = ReservedPort("127.0.0.1")
        self.port = self.reserved.port

    def start(self, *command):
        self.output = self.folder / "output"
        # The server gets a new session, because Apache ends its whole process group when it ends.
        with open(self.output, "wb") as output:
            self.process = subprocess.Popen(command, env=ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=output, start_new_session=True)
        try:
            until(self._listens, f"{command[0]} listens")
        except AssertionError:
            self.close()
            raise

    def _listens(self):
        assert self.process.poll() is None, self.output.read_text()
        try:
            Wire.connect(self.port).close()
            return True
        except ConnectionRefusedError:
            return False

    def close(self):
        end(self.process)
        self.reserved.close()


class Apache(Server):
    """A bare repository at /git/project.git and a Subversion repository at /svn. Every client may write to both."""

    CONFIGURATION = """
        ServerRoot {folder}
        ServerName localhost
        Listen 127.0.0.1:{port}
        PidFile {folder}/pid
        ErrorLog {folder}/errors
        DefaultRuntimeDir {folder}
        Mutex sem
        LoadModule mpm_prefork_module {modules}/mod_mpm_prefork.so
        LoadModule authz_core_module {modules}/mod_authz_core.so
        LoadModule alias_module {modules}/mod_alias.so
        LoadModule env_module {modules}/mod_env.so
        LoadModule cgi_module {modules}/mod_cgi.so
        LoadModule dav_module {modules}/mod_dav.so
        LoadModule dav_svn_module {modules}/mod_dav_svn.so
        User nobody
        Group nogroup
        StartServers 2
        KeepAliveTimeout 60
        MaxKeepAliveRequests 0
        SetEnv GIT_PROJECT_ROOT {folder}/git
        SetEnv GIT_HTTP_EXPORT_ALL 1
        ScriptAlias /git/ {backend}/
        <Location /svn>
          DAV svn
          SVNPath {folder}/svn
        </Location>
        """

    def __init__(self, folder):
        super().__init__(folder)
        self.git, self.svn = self.folder / "git/project.git", self.folder / "svn"
        run("git", "init", "--quiet", "--bare", self.git)
        run("git", "--git-dir", self.git, "config", "http.receivepack", "true")
        run("svnadmin", "create", self.svn)
        if os.geteuid() == 0:  # Apache then becomes a user without rights
            run("chown", "-R", "nobody:nogroup", self.folder)
        configuration = self.folder / "apache.conf"
        configuration.write_text(self.CONFIGURATION.format(folder=self.folder, port=self.port, modules=MODULES,
                                                           backend=GIT_BACKEND))
        self.start("apache2", "-DFOREGROUND", "-f", configuration)


class Registry(Server):
    CONFIGURATION = """
version: 0.1
log: {{level: warn}}
storage: {{filesystem: {{rootdirectory: {folder}/images}}}}
http: {{addr: "127.0.0.1:{port}", relativeurls: true, secret: none}}
"""

    def __init__(self, folder):
        super().__init__(folder)
        configuration = self.folder / "registry.yml"
        configuration.write_text(self.CONFIGURATION.format(folder=self.folder, port=self.port))
        self.start("docker-registry", "serve", configuration)
