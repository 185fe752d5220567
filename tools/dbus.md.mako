<%
    # Mako takes a line that begins with ## for a comment, and a backslash
    # before a line end away.
    h2, h3, h4, more = "##", "###", "####", "\\"

    service = interface.name.rpartition(".")[0]
    root = "/" + service.replace(".", "/")
    path = root + "/0/29"
    # What a freshly discovered endpoint with EID 29 says.
    examples = {
        "NetworkId": "u 0",
        "EID": "y 29",
        "SupportedMessageTypes": "ay 2 126 5",
        "EndpointType": "q 1",
        "Slot": "q 0",
        "DevicePath": 's "/dev/i3c-mctp-0"',
    }
%>\
<!-- SPDX-License-Identifier: Apache-2.0 -->
<!-- Made from the interface's definition below yaml/ and tools/dbus.md.mako;
     "meson compile -C build dbus-reference" makes it anew. -->
# On the bus

Bus, name and paths of what the daemon publishes, the interface
`${interface.name}`, and what the daemon itself asks of
others. The examples work on a board, and on the simulated one with the address
that `morrow-board --shell` prints.

${h2} Service

| | |
|---|---|
| Bus | the system bus |
| Name | `${service}` |
| Owned by | root alone; the policy is `${service}.conf` |
| Activation | none: the name is there while the daemon runs |
| Others may | read, introspect, list objects, call `GetArbitration`, and `Ping` and `GetMachineId` of `org.freedesktop.DBus.Peer` |

The name is owned before the daemon says `READY=1`, and given up with the first
SIGTERM.

    busctl status ${service}

${h2} Objects

| Path | What it is |
|---|---|
| `${root}/0` | object manager of MCTP network 0: endpoints behind I3C |
| `${root}/1` | object manager of network 1, empty |
| `${root}/2` | object manager of network 2, empty |
| `${root}/0/EID` | an endpoint of network 0; EID in decimal without zeros before it |

Each manager has the interface `org.freedesktop.DBus.ObjectManager`. The object of
an endpoint is there from when it has answered until the host goes off or is
reset warm, a full discovery begins, or the daemon is stopped.

    busctl tree ${service}
    busctl call ${service} ${root}/0 ${more}
        org.freedesktop.DBus.ObjectManager GetManagedObjects

${h2} Interface ${interface.name}

${wrap(interface.description)}

    busctl introspect ${service} ${path}

${h3} Properties

| Name | Signature | Default | Flags |
|---|---|---|---|
% for each in interface.properties:
| `${each.name}` | `${signature(each.type)}` | ${default(each)} | ${flags(each)} |
% endfor

An object has the defaults for a moment only, when it is announced; see
[Announcements](#announcements).
% for each in interface.properties:

${h4} ${each.name}

${wrap(each.description)}

    $ busctl get-property ${service} ${path} ${more}
          ${interface.name} ${each.name}
    ${examples[each.name]}
% endfor

${h3} Methods
% for each in interface.methods:

${h4} ${each.name}

${table(each.parameters, "In")}
${table(each.returns, "Out")}
Flags: ${", ".join(each.flags) or "none"}.

${wrap(each.description)}

    $ busctl call ${service} ${path} ${more}
          ${interface.name} ${each.name} ${"".join(signature(one.type) for one in each.parameters)} 29
    u 0
% endfor

${h3} Signals
% for each in interface.signals:

${h4} ${each.name}

${table(each.properties, "Value")}
Flags: ${", ".join(each.flags) or "none"}.

${wrap(each.description)}

    busctl monitor --match="type='signal',interface='${interface.name}',member='${each.name}'"
% endfor

${h2} Announcements

When an endpoint has answered, these signals come in this order:

1. `InterfacesAdded` from its object manager, with all properties at their
   defaults.
2. `PropertiesChanged` from the object, one signal for each property whose value
   is not its default, in the order
   ${", ".join(f"`{one.name}`" for one in sorted(interface.properties, key=lambda one: one.name))}.

So a client must not take the values from `InterfacesAdded`: it follows
`PropertiesChanged`, or asks for them once it has seen the object. Asking is enough:
no answer comes before the object has its values, and they never change again.

When the endpoint is withdrawn, its manager sends `InterfacesRemoved`; when the
daemon dies, the name loses its owner and nothing else is said. Discovering anew
withdraws every object first, also those that come back with the same path.

As root, see them come:

    busctl monitor ${service}

${h2} Errors

| Who | Gets |
|---|---|
| sets a property | `org.freedesktop.DBus.Error.AccessDenied`: nobody may, root neither |
| calls what the policy does not list | `org.freedesktop.DBus.Error.AccessDenied` |
| calls without naming an interface, whatever the member is | `org.freedesktop.DBus.Error.AccessDenied`: `qdbus` with a member's bare name, dbus-python without `dbus_interface` |
| reads a property with `qdbus` as if it were a method | `org.freedesktop.DBus.Error.AccessDenied`: it calls a method of that name first; call `org.freedesktop.DBus.Properties.Get` instead |
| names an object that is not there | `org.freedesktop.DBus.Error.UnknownObject` |
| names a property that is not there | `org.freedesktop.DBus.Error.UnknownProperty` |
| calls `GetArbitration` with another type than `y` | `org.freedesktop.DBus.Error.InvalidArgs` |
| asks while no daemon runs | `org.freedesktop.DBus.Error.ServiceUnknown` |

${h2} What the daemon asks of others

| Service | Path | Interface | Member |
|---|---|---|---|
| `xyz.openbmc_project.State.Host0` | `/xyz/openbmc_project/state/host0` | `xyz.openbmc_project.State.Host` | property `CurrentHostState`, read once for each pass |
| whoever the bus policy admits: root | `/xyz/openbmc_project/control/host0/internal_power_state` | any | `PropertiesChanged` with `InternalPowerState` |
| whoever the bus policy admits: root | `/xyz/openbmc_project/control/host0/reset_cause` | any | `PropertiesChanged` with `ResetCause` |

All three are strings. `CurrentHostState` is
`xyz.openbmc_project.State.Host.HostState.Running` for a host that runs; every
other text counts as off. Of `InternalPowerState` and `ResetCause` the daemon looks
for these parts:

| Property | Contains | Then |
|---|---|---|
| `InternalPowerState` | `.S0InReset`, `.PreStandby`, `.StateS6`, `.StateS5Early`, `.StateS5S3Mbusy`, `.StateS5`, `.S5OnPending`, `.Unknown` | all endpoints are withdrawn; a host that runs is discovered anew |
| `InternalPowerState` | `.OffPendingS0` | nothing but a line in the log |
| `ResetCause` | `.WarmReset` | all endpoints are withdrawn; a host that runs is discovered anew |

    busctl get-property xyz.openbmc_project.State.Host0 ${more}
        /xyz/openbmc_project/state/host0 ${more}
        xyz.openbmc_project.State.Host CurrentHostState
