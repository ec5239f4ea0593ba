"""What the package does to a board: where things land, and what it never touches."""

import re
import subprocess

APPLICATIONS = "home/root/Applications"
PROGRAM = f"{APPLICATIONS}/tessaroserver/tessaroserver"
UNIT = "lib/systemd/system/tessaroserver.service"
AGENT_UNIT = "lib/systemd/system/tessaro-agent.service"
SYSCTL = "usr/lib/sysctl.d/60-tessaroserver.conf"
DOC = "usr/share/doc/tessaroserver"
EXAMPLE_FILES = (".config/baseInternalInputTags.csv", "tessaroserver/config/app.csv", "tessaroserver/config/keys.csv",
                 "tessaroserver/config/remotes.csv", "handset/manifest.csv")


def site_files(clean):
    """A site's own installation, the way an installer would copy it."""
    clean.run("cp", "-a", f"/{DOC}/examples/.", f"/{APPLICATIONS}/")
    remotes = clean / f"{APPLICATIONS}/tessaroserver/config/remotes.csv"
    remotes.write_text(remotes.read_text().replace("1001;0;0;0;0", "1001;11;22;33;44"))
    return {file: (clean / f"{APPLICATIONS}/{file}").read_bytes() for file in EXAMPLE_FILES}


def now(clean):
    return {file: (clean / f"{APPLICATIONS}/{file}").read_bytes() for file in EXAMPLE_FILES}


def version(clean):
    return clean.run("dpkg-query", "--show", "--showformat=${Version} ${db:Status-Status}", "tessaroserver")


# --- installing --------------------------------------------------------------------------------------------------------


def test_everything_lands_in_its_place(clean, newer):
    clean.install(newer)
    assert (clean / PROGRAM).stat().st_mode & 0o777 == 0o755
    for file in EXAMPLE_FILES:
        assert (clean / f"{DOC}/examples/{file}").is_file()
    for tool in ("tessaro-agent", "tessaro-check", "tessaro-top", "tessaro-report"):
        assert (clean / f"usr/bin/{tool}").is_file() and (clean / f"usr/share/man/man1/{tool}.1.gz").is_file()
    for file in (UNIT, AGENT_UNIT, SYSCTL, f"{DOC}/wireshark/tessaro.lua", f"{DOC}/wireshark/README.md", f"{DOC}/installation.md",
                 f"{DOC}/copyright"):
        assert (clean / file).is_file(), file


def test_the_pages_link_to_nothing_that_is_missing(clean, newer):
    clean.install(newer)
    pages = list((clean / DOC).rglob("*.md"))
    links = [(page, link) for page in pages for link in re.findall(r"\]\(([^)#:]+)", page.read_text())]
    assert len(pages) > 10 and len(links) > 10
    assert [(page.name, link) for page, link in links if not (page.parent / link).exists()] == []


def test_the_applications_folder_gets_the_program_and_nothing_else(clean, newer):
    clean.install(newer)
    files = [path for path in (clean / APPLICATIONS).rglob("*") if path.is_file()]
    assert files == [clean / PROGRAM]


def test_the_dependencies_are_those_of_the_program(clean, newer):
    """All that the program loads is there, and belongs to a package that ours depends on, directly or not."""
    depends = subprocess.run(["dpkg-deb", "--field", newer, "Depends"], capture_output=True, text=True, check=True).stdout
    assert {"libc6", "libstdc++6", "libqt5core5a", "libqt5network5"} <= set(re.findall(r"([\w+.-]+) ?(?:\(|,|$)",
                                                                                               depends.strip()))
    clean.install(newer)
    loaded = clean.run("ldd", f"/{PROGRAM}")
    assert "libQt5Core.so.5" in loaded and "not found" not in loaded


def test_without_its_libraries_it_is_not_configured(clean, newer):
    clean.run("dpkg", "--purge", "--force-depends", "libqt5network5")
    inside = clean / newer.name
    inside.write_bytes(newer.read_bytes())
    assert "libqt5network5" in clean.run("dpkg", "--install", f"/{newer.name}", ok=False)
    assert version(clean).endswith(" unpacked")


def test_the_program_runs_and_says_who_it_is(clean, newer):
    """Without lines to drive it must end, with the message of its fatal assertion; not with one of the dynamic linker."""
    clean.install(newer)
    said = clean.run(f"/{PROGRAM}", ok=False)
    assert "Starting TZ-400 Tessaro Server [ build of " in said and "Fatal" in said


def test_the_tools_run(clean, newer):
    clean.install(newer)
    clean.run("tessaro-check", f"/{DOC}/examples")  # exits with 0: the example has no problems
    for tool in ("tessaro-top", "tessaro-report"):
        assert "usage" in clean.run(tool, "--help")


# --- the unit ----------------------------------------------------------------------------------------------------------


def test_weights_count_beside_all_other_programs(clean, newer):
    clean.install(newer)
    settings = [line.strip() for line in (clean / SYSCTL).read_text().splitlines() if not line.startswith("#")]
    assert settings == ["-kernel.sched_autogroup_enabled = 0"]


def test_the_unit_is_valid_and_enabled(clean, newer):
    clean.install(newer)
    said = clean.run("systemd-analyze", "verify", "--man=no", "/lib/systemd/system/tessaroserver.service")
    assert "tessaroserver.service" not in said, said
    assert (clean / "etc/systemd/system/multi-user.target.wants/tessaroserver.service").is_symlink()


def test_the_unit_restarts_for_ever_and_keeps_core_dumps(clean, newer):
    clean.install(newer)
    lines = (clean / UNIT).read_text().splitlines()
    for line in ("Restart=always", "StartLimitIntervalSec=0", "LimitCORE=infinity", "After=network-online.target",
                 "Wants=network-online.target", f"ExecStart=/{PROGRAM}"):
        assert line in lines


def test_a_unit_that_somebody_disabled_stays_so(clean, older, newer):
    clean.install(older)
    clean.run("systemctl", "disable", "tessaroserver.service")
    clean.install(newer)
    assert not (clean / "etc/systemd/system/multi-user.target.wants/tessaroserver.service").is_symlink()


# --- a site's files ----------------------------------------------------------------------------------------------------


def test_an_upgrade_replaces_the_program_and_leaves_the_site_alone(clean, older, newer):
    clean.install(older)
    before, first = site_files(clean), version(clean)
    (clean / PROGRAM).write_bytes(b"an older program")
    clean.install(newer)
    assert now(clean) == before
    assert (clean / PROGRAM).stat().st_size > 100_000
    assert first != version(clean) and version(clean).endswith(" installed")


def test_installing_again_leaves_the_site_alone(clean, newer):
    clean.install(newer)
    before = site_files(clean)
    clean.install(newer)
    assert now(clean) == before


def test_removing_takes_the_program_and_leaves_the_site(clean, newer):
    clean.install(newer)
    before = site_files(clean)
    clean.run("dpkg", "--remove", "tessaroserver")
    assert now(clean) == before
    assert not (clean / PROGRAM).exists() and not (clean / "usr/bin/tessaro-top").exists()
    assert not (clean / UNIT).exists()


def test_purging_leaves_the_site_too(clean, newer):
    clean.install(newer)
    before = site_files(clean)
    clean.run("dpkg", "--purge", "tessaroserver")
    assert now(clean) == before
    assert not (clean / "etc/systemd/system/multi-user.target.wants/tessaroserver.service").is_symlink()
    assert not (clean / DOC).exists()
