"""Looks at the linked release of the daemon: its symbols, its size and its run path."""

import os
import pathlib
import re
import subprocess

BUILD = pathlib.Path(os.environ["BUILD_DIR"])
DAEMON = BUILD / "bin/adagentd"

OPERATIONS = {
    "main", "adagentd_Start()", "sig_quit(int)", "sigterm_handler(int)",
    "system_cmd", "check_existed", "ad_mounter_create", "ad_remove_lib_so_path", "ad_mount",
    "ad_umount", "ad_replace_img", "ad_copy", "ad_copy_lib(char const*, char const*)",
    "ad_copy_lib_fwk()", "ad_copy_lib_player()", "ad_copy_path(char const*, char const*)",
    "ad_copy_player_res()",
} | {
    f"CADLibs::{name}()" for name in
    """CADLibs ~CADLibs Destory GetAdAgentInit GetAdAgentClear GetAdAgentRegister
    GetAdAgentUnRegister GetAdAgentRequest GetAdAgentRequestSync GetAdAgentReport GetAdAgentLaunch
    GetAdAgentUpdate GetAdAgentSetSoVersion GetAdAgentGetSoVersion GetAdAgentPsidGet
    GetAdAgentConfigServer""".split()
} | {
    f"CADLibs::{name}(std::string)" for name in ("Start", "m_GetHanlder")
} | {
    f"CADAgentd::{name}()" for name in
    """CADAgentd ~CADAgentd t_Initialize Start Destory m_IsValidNetwork m_GetConnectionProfile
    RegisterNetWorkStateChangeCB UnRegisterNetWorkStateChangeCB m_RequestData m_CheckFirmVersion
    m_WriteFirmVersion m_GetValidSoFile m_CheckZelPath m_Update m_DownloadImg m_GetImgVersion
    m_ReplaceLibSo""".split()
} | {
    f"CADAgentd::{name}(settings_keynode*, void*)" for name in
    "m_VConfLanguageChangeCB m_VConfTermChangeCB m_CountryCodeChangeCB".split()
} | {
    "CADAgentd::m_NetworkStateChangeCB(connection_profile_state_e, void*)",
    "CADAgentd::m_NetWorkTypeChangeCB(connection_type_e, void*)",
    "CADAgentd::m_GetXmlValue(std::string, std::string, std::string)",
}
GLOBALS = {"loop", "gpadagentd"}


def run(*command, **environment):
    return subprocess.run(command, check=True, capture_output=True, text=True,
                          env={**os.environ, **environment}).stdout


def symbols(*options, types):
    """The names of nm's symbols of these types, without versions and ABI tags."""
    lines = run("nm", "--format=posix", *options, DAEMON).splitlines()
    found = (re.fullmatch(r"(.*?) ([a-zA-Z])( [0-9a-f]+)*\s*", line) for line in lines)
    text = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
    return {match[1].split("@")[0].replace(text, "std::string").replace("[abi:cxx11]", "")
            for match in found if match[2] in types}


def test_holds_every_operation_and_global():
    assert OPERATIONS - symbols("-C", types="T") == set()
    assert GLOBALS - symbols("-C", types="BD") == set()


def test_exports_nothing_that_a_library_could_take():
    exports = symbols("-D", "--defined-only", types="TBDRVWu")
    assert exports == {"stdout"} | {f"_ZN13TiXmlDocumentD{kind}Ev" for kind in "012"}


def test_writes_standard_output_with_checked_printf_only():
    imports = symbols("-D", "--undefined-only", types="UwW")
    assert "__printf_chk" in imports
    assert imports & {"printf", "puts", "putchar", "fflush"} == set()


def test_is_small_without_symbols(tmp_path):
    run("strip", "-o", tmp_path / "adagentd", DAEMON)
    assert (tmp_path / "adagentd").stat().st_size < 100_000


def test_starts_from_build_tree_on_its_platform_or_on_another():
    def platform(**environment):
        trace = run(DAEMON, LD_TRACE_LOADED_OBJECTS="1", **environment)
        return pathlib.Path(re.search(r"libad-platform\S* => (\S+)", trace)[1]).resolve()

    assert platform() == (BUILD / "lib/libad-platform.so.1").resolve()
    other = BUILD / "lib/linux"
    assert platform(LD_LIBRARY_PATH=str(other)) == (other / "libad-platform.so.1").resolve()


def test_has_run_path_in_build_tree_only(tmp_path):
    run("cmake", "--install", BUILD, "--prefix", "/usr", DESTDIR=str(tmp_path))
    run_path = {name: re.findall(r"\((\w*PATH)\).*\[(.*)\]", run("readelf", "-dW", name))
                for name in (str(DAEMON), f"{tmp_path}/usr/bin/adagentd")}
    assert list(run_path.values()) == [[("RUNPATH", "$ORIGIN/../lib")], []]
