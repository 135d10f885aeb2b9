"""Certificate authorities and certificates for tests, made by openssl; those of another time by faketime."""

import dataclasses
import pathlib
import ssl
import subprocess

LOCAL = "DNS:localhost,IP:127.0.0.1"


@dataclasses.dataclass(frozen=True)
class Certificate:
    """Two PEM files."""
    file: pathlib.Path
    key: pathlib.Path


def openssl(*arguments, days_ago=0):
    """Runs openssl with the clock put back (or, negative, forward); what it printed."""
    clock = ["faketime", "-f", f"{-days_ago:+d}d"] if days_ago else []
    done = subprocess.run([*clock, "openssl", *map(str, arguments)], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, check=False)
    assert done.returncode == 0, f"openssl {arguments}: {done.stderr}"
    return done.stdout


def not_after(file):
    """When the certificate in a PEM file expires, in seconds since the epoch."""
    end = openssl("x509", "-in", file, "-noout", "-enddate").split("=", 1)[1].strip()
    return ssl.cert_time_to_seconds(end)


class Authority:
    """A certificate authority; its files NAME.pem and NAME-key.pem are in `folder`, like all that it issues."""

    def __init__(self, folder, name="ca", days=90, days_ago=0):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.file, self.key = self._files(name)
        openssl("req", "-x509", *self._new_key(self.key), "-subj", f"/CN={name}", "-days", days, "-out", self.file,
                days_ago=days_ago)

    def issue(self, name, names=LOCAL, days=90, days_ago=0):
        """A certificate NAME.pem with the key NAME-key.pem, its subject CN=NAME; replaces one of the same name."""
        certificate = Certificate(*self._files(name))
        request = self.folder / f"{name}.csr"
        openssl("req", *self._new_key(certificate.key), "-subj", f"/CN={name}", "-addext", f"subjectAltName={names}",
                "-out", request)
        openssl("x509", "-req", "-copy_extensions", "copy", "-in", request, "-CA", self.file, "-CAkey", self.key,
                "-CAcreateserial", "-days", days, "-out", certificate.file, days_ago=days_ago)
        return certificate

    def _files(self, name):
        return self.folder / f"{name}.pem", self.folder / f"{name}-key.pem"

    @staticmethod
    def _new_key(file):
        return "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", file
