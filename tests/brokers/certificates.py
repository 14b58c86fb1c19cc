"""An authority of the test's own, and certificates of brokers: good ones and others."""

from __future__ import annotations

import subprocess

from brokers.rabbitmq import CERTIFICATES

# openssl's own forms of a certificate's beginning and end.
PAST = ("20200101000000Z", "20200201000000Z")
PRESENT = ("20200101000000Z", "20990101000000Z")


def _openssl(*words: str) -> None:
    subprocess.run(["openssl", *words], cwd=CERTIFICATES, check=True, capture_output=True)


def make_authority() -> None:
    """Makes ca.pem, and what openssl needs to keep books of what it signs."""
    CERTIFICATES.mkdir(parents=True)
    (CERTIFICATES / "ca.conf").write_text(
        "[ca]\ndefault_ca=own\n[own]\ndatabase=index\nnew_certs_dir=.\nserial=serial\n"
        "default_md=sha256\npolicy=any\nunique_subject=no\ncopy_extensions=copy\n"
        "[any]\ncommonName=supplied\n[req]\ndistinguished_name=name\nx509_extensions=v3\n"
        "[name]\n[v3]\nbasicConstraints=critical,CA:true\n",
        encoding="ascii",
    )
    (CERTIFICATES / "index").touch()
    (CERTIFICATES / "serial").write_text("01\n", encoding="ascii")
    _openssl(
        *("req", "-x509", "-config", "ca.conf", "-newkey", "rsa:2048", "-nodes", "-days", "2"),
        *("-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=authority"),
    )


def make_server(name: str = "localhost", time: tuple[str, str] = PRESENT) -> None:
    """Makes server.pem and server.key for a host of that name, valid for that time."""
    _openssl(
        *("req", "-new", "-config", "ca.conf", "-newkey", "rsa:2048", "-nodes"),
        *("-keyout", "server.key", "-out", "server.csr", "-subj", f"/CN={name}"),
        *("-addext", f"subjectAltName=DNS:{name}"),
    )
    _openssl(
        *("ca", "-batch", "-config", "ca.conf", "-cert", "ca.pem", "-keyfile", "ca.key"),
        *("-in", "server.csr", "-out", "server.pem", "-notext"),
        *("-startdate", time[0], "-enddate", time[1]),
    )
