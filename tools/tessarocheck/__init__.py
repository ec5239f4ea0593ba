"""What tessaro-check is made of: a file for each kind of what it checks.

files         what the server opens and what it refuses
table         tables, their rows and cells, and the report of findings
tags          tag files: types, sizes, places in an image
keys          app.csv and keys.csv
remotes       remotes.csv
applications  manifests, and the folders of the applications for remote units
explanations  what each key, tag and column does
program       arguments, order, exit status

`scripts/pack-check` makes one file of it that needs no other.
"""
