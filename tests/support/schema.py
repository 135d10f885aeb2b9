"""The messages of the agent's two interfaces, generated from their .proto files for this run.

`first_applications` is the applications' interface as it was first: what an old program knows.
"""

import atexit
import importlib
import pathlib
import shutil
import subprocess
import sys
import tempfile

from .paths import PROTO_ROOT, SOURCE_ROOT


def _generate():
    folder = tempfile.mkdtemp(prefix="qel-schema-")
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    for root, file in ((SOURCE_ROOT, "appinit/AppInitConfigMsg.proto"),
                       (PROTO_ROOT, "qel/apps/v1/applications.proto"),
                       (pathlib.Path(__file__).parent, "first_applications.proto")):
        subprocess.run(["protoc", f"--python_out={folder}", f"-I{root}", str(root / file)], check=True)
    sys.path.insert(0, folder)
    return (importlib.import_module("appinit.AppInitConfigMsg_pb2"),
            importlib.import_module("qel.apps.v1.applications_pb2"),
            importlib.import_module("first_applications_pb2"))


appinit, applications, first_applications = _generate()


def configuration(topics=(), queues=()):
    """A serialized configuration. Topics are names (priority 0) or pairs of name and priority."""
    message = appinit.AppInitConfigMsg()
    for topic in topics:
        name, priority = (topic, 0) if isinstance(topic, str) else topic
        message.topic_info.add(topic=name, priority=priority)
    message.queue_name.extend(queues)
    return message.SerializeToString()
