"""What each key, tag and column does, for --explain."""
from .tags import WHOLE_SIZES

EXPLAIN_TAGS = {
    "bu_identity": "tag: id of the base unit. Starts the hub and the link to the machine controller; a unit's INIT is "
                   "checked against it.",
    "bu_state": "tag: state of the base unit (0 INITIAL, 1 STOPPED, 2 EXTERNAL_LINK_ERROR, 3 BLOCKED, 4 FAILED, "
                "16 DISARMED, 17 ARMED).",
    "armed_ru": "tag: id of the armed remote unit; its machine stop counts.",
    "tsaps": "tag: part of BASE STATUS and of the status object of the UDP API.",
    "unarmed_rus": "tag: number of units that are not armed; BASE STATUS and UDP API.",
    "eglink_stat_out": "tag: state of the machine controller's link as the units see it; BASE STATUS and UDP API.",
    "eclink_status": "tag: state of the external controller's link; BASE STATUS and UDP API.",
    "clink_status": "tag: UDP API.",
    "ru_state": "tag: UDP API.",
    "BCSR": "tag: UDP API.",
    "BUID": "tag: UDP API. In an application's app.csv: the id of the base unit that it is paired to.",
    "IFTY": "tag: UDP API.",
    "IVL1": "tag: UDP API.",
    "IVL2": "tag: UDP API.",
    "IVL3": "tag: UDP API.",
    "total_rus": "tag: set to the number of remote units that have introduced themselves since the start, reported to the base "
                 "controller.",
    "eglink_status": "tag: set to the state of the machine controller's link, reported to the base controller.",
}
TEXT_KEYS = {
    "EMAP": "app.csv, text, needed: channels to the machine controller (1 VRPI + 2 commands + 4 VRPO, 0 = off). The "
            "server ends at the first identity when the key is missing.",
    "MCIP": "app.csv, text: multicast group of the machine controller, 239.255.42.20 when missing.",
    "MCPT": "app.csv, text: port of the machine controller, 5825 when missing.",
    "SID1": "app.csv: network name, copied into an application when it is paired.",
    "WPA1": "app.csv: pass phrase of the network, copied into an application when it is paired.",
    "EGDH": "app.csv, needed: address of eth0, kept current by the server.",
}
OTHER_KEYS = {
    "FMAP": "app.csv, number from BC or RGP, needed: bit 0 or 1 lets commands of remote units pass to the base "
            "controller. The server ends at the first command when the key is missing.",
    "CCH1": "app.csv: radio channel, copied into an application when it is paired.",
    "CCH2": "app.csv: radio channel, copied into an application when it is paired.",
    "CCH3": "app.csv: radio channel, copied into an application when it is paired.",
    "RUID": "remotes.csv: id of a remote unit, 1 to 65535.",
    "ruindex": "remotes.csv: number of the row, counted from 0.",
    "PKY1": "remotes.csv: first word of the pairing key; written by pairing.",
    "PKY2": "remotes.csv: second word of the pairing key; written by pairing.",
    "PKY3": "remotes.csv: third word of the pairing key; written by pairing.",
    "PKY4": "remotes.csv: fourth word of the pairing key; written by pairing.",
    "from": "app.csv, keys.csv: BC and RGP make the value a number of four bytes; anything else leaves it a text.",
    "value": "app.csv, keys.csv: the value of the key.",
    "target": "manifest.csv: ru for an application of remote units.",
    "type": "manifest.csv: user (carries pairing keys, checked at INIT) or system.",
    "startByte": "tag files: first byte of the tag in its image.",
    "byteSize": "tag files: number of bytes of the tag.",
    "startBit": "tag files: first bit of a bit field or boolean, bit 0 being the least significant one.",
    "bitSize": "tag files: number of bits of a bit field; 0 for the whole bytes.",
    "dataType": "tag files: " + ", ".join(WHOLE_SIZES) + "; upper case.",
}
EXPLANATIONS = {**EXPLAIN_TAGS, **TEXT_KEYS, **OTHER_KEYS}
