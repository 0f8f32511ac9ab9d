"""Certificates for the scenarios, made when they are needed by the program openssl."""

import subprocess
from pathlib import Path

from processes import bound


def _openssl(*arguments, cwd=None):
    done = subprocess.run(["openssl", *map(str, arguments)], cwd=cwd, stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, errors="replace", timeout=bound(60), check=False)
    if done.returncode != 0:
        raise AssertionError(f"openssl {' '.join(map(str, arguments))} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


class Certificate:
    """Files in PEM: `chain` (the certificate, then who has signed it), `key`, and `both`, which holds both."""

    def __init__(self, chain, key, both):
        self.chain, self.key, self.both = chain, key, both

    def serial(self):
        """As openssl shows it."""
        return _openssl("x509", "-in", self.chain, "-noout", "-serial").strip().removeprefix("serial=")


class Authority:
    """A certificate authority of the scenario's own, with one between itself and what it signs.

    `file` is the certificate that others have to trust.
    """

    def __init__(self, place, name="authority"):
        self._folder = place.new_folder(name)
        self.file = self._folder / "ca.pem"
        self._made = 0
        for part in ("ca", "intermediate"):
            (self._folder / f"{part}.index").touch()
            (self._folder / f"{part}.cnf").write_text(
                f"[ca]\ndefault_ca = own\n[own]\ndatabase = {self._folder}/{part}.index\nnew_certs_dir = {self._folder}\n"
                "rand_serial = yes\ndefault_md = sha256\npolicy = any\nunique_subject = no\nemail_in_dn = no\n"
                "[any]\ncommonName = supplied\n")
        self._key("ec", "ca.key")
        _openssl("req", "-x509", "-new", "-key", "ca.key", "-subj", f"/CN={name} of a test", "-days", "30", "-sha256",
                 "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
                 "-out", "ca.pem", cwd=self._folder)
        self._key("ec", "intermediate.key")
        self._sign("ca", "intermediate", f"intermediate {name} of a test",
                   "basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\n", ("-days", "30"))

    def _key(self, kind, name):
        options = (["-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"] if kind == "ec"
                   else ["-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"])
        _openssl("genpkey", *options, "-out", name, cwd=self._folder)

    def _sign(self, signer, name, common_name, extensions, validity):
        (self._folder / f"{name}.ext").write_text(
            extensions + "subjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n")
        _openssl("req", "-new", "-key", f"{name}.key", "-subj", f"/CN={common_name}", "-out", f"{name}.csr",
                 cwd=self._folder)
        _openssl("ca", "-batch", "-notext", "-config", f"{signer}.cnf", "-cert", f"{signer}.pem",
                 "-keyfile", f"{signer}.key", "-in", f"{name}.csr", "-out", f"{name}.pem",
                 "-extfile", f"{name}.ext", *validity, cwd=self._folder)

    def issue(self, names, kind="ec", expired=False, client=False, key=None):
        """A certificate for these names (addresses too), with a new key, or that of another Certificate.

        Its common name is the first one. `kind` is that of a new key: ec or rsa.
        """
        self._made += 1
        name = f"made{self._made}"
        if key is None:
            self._key(kind, f"{name}.key")
        else:
            (self._folder / f"{name}.key").write_bytes(key.key.read_bytes())
        alternatives = ",".join(f"{'IP' if _is_address(each) else 'DNS'}:{each}" for each in names)
        self._sign("intermediate", name, names[0],
                   f"basicConstraints=CA:FALSE\nextendedKeyUsage={'clientAuth' if client else 'serverAuth'}\n" +
                   ("" if client else f"subjectAltName={alternatives}\n"),
                   ("-startdate", "20200101000000Z", "-enddate", "20210101000000Z") if expired else ("-days", "29"))
        chain, own_key, both = (self._folder / f"{name}.{part}" for part in ("chain.pem", "key", "both.pem"))
        chain.write_bytes((self._folder / f"{name}.pem").read_bytes() +
                          (self._folder / "intermediate.pem").read_bytes())
        # Postfix wants the key in front.
        both.write_bytes(own_key.read_bytes() + chain.read_bytes())
        return Certificate(chain, own_key, both)


def _is_address(name):
    return ":" in name or name.replace(".", "").isdigit()


def replace_file(path, content):
    """Puts another file in the place of `path`, in one step, as those who renew certificates do."""
    new = Path(f"{path}.new")
    new.write_bytes(content)
    new.replace(path)
