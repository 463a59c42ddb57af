"""Images in the layout of the Open Container Initiative, for clients that copy them."""

import gzip
import hashlib
import io
import json
import tarfile


def make_image(folder, content):
    """An image in the layout of the Open Container Initiative, with one file. Returns its only layer."""
    (folder / "blobs/sha256").mkdir(parents=True)

    def add(data, kind):
        name = hashlib.sha256(data).hexdigest()
        (folder / "blobs/sha256" / name).write_bytes(data)
        return {"mediaType": f"application/vnd.oci.image.{kind}", "digest": f"sha256:{name}", "size": len(data)}

    def add_json(value, kind):
        return add(json.dumps(value).encode(), kind)

    archive = io.BytesIO()
    with tarfile.open(fileobj=archive, mode="w") as tar:
        entry = tarfile.TarInfo("large")
        entry.size = len(content)
        tar.addfile(entry, io.BytesIO(content))
    layer = add(archive.getvalue(), "layer.v1.tar")
    settings = add_json({"architecture": "amd64", "os": "linux", "config": {},
                         "rootfs": {"type": "layers", "diff_ids": [layer["digest"]]}}, "config.v1+json")
    manifest = add_json({"schemaVersion": 2, "config": settings, "layers": [layer]}, "manifest.v1+json")
    manifest["annotations"] = {"org.opencontainers.image.ref.name": "1"}
    (folder / "index.json").write_text(json.dumps({"schemaVersion": 2, "manifests": [manifest]}))
    (folder / "oci-layout").write_text('{"imageLayoutVersion": "1.0.0"}')
    return archive.getvalue()


def layer_of(folder):
    """The unpacked layer of an image that a client has written. The image has one layer, which is its largest file."""
    largest = max((folder / "blobs/sha256").iterdir(), key=lambda path: path.stat().st_size)
    return gzip.decompress(largest.read_bytes())
