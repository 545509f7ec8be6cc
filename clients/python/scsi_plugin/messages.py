"""The message classes of the contract: `messages.LunCmd`, `messages.PluginCmd`, ...

They are made at run time from the descriptor set that the project's build compares with the schema.
So there is nothing to generate when the package is installed, and any version of protobuf will do.
They are in a descriptor pool of their own: classes that protoc has generated from the same schema may
be loaded beside them.
"""
from __future__ import annotations

import importlib.resources
from typing import Any

from google.protobuf import descriptor_pb2, descriptor_pool, message_factory

_SERVICE = "vexo.scsiplugin.PluginService"


def _load() -> tuple[Any, dict[str, Any]]:
    pool = descriptor_pool.DescriptorPool()
    schema = importlib.resources.files(__package__).joinpath("contract.binpb").read_bytes()
    for file in descriptor_pb2.FileDescriptorSet.FromString(schema).file:
        pool.AddSerializedFile(file.SerializeToString())
    if hasattr(message_factory, "GetMessageClass"):
        make = message_factory.GetMessageClass
    else:  # protobuf before 4.22, as in Debian 12 and 13
        make = message_factory.MessageFactory(pool).GetPrototype
    service = pool.FindServiceByName(_SERVICE)
    classes: dict[str, Any] = {}
    for file in ("lun_cmd.proto", "plugin_cmd.proto", "google/protobuf/empty.proto"):
        for name, descriptor in pool.FindFileByName(file).message_types_by_name.items():
            classes[name] = make(descriptor)
    return service, classes


SERVICE, _classes = _load()
#: Values of LunType.
LUN_TYPE_80, LUN_TYPE_83 = 1, 2


def __getattr__(name: str) -> Any:
    try:
        return _classes[name]
    except KeyError:
        raise AttributeError(f"the contract has no message {name}") from None
