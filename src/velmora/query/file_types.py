"""File types by name, as rg knows them: ``-t py`` searches Python files, ``-T js`` skips JS."""

from __future__ import annotations

import fnmatch
import functools
import re
from collections.abc import Callable, Sequence


class UnknownType(ValueError):
    """A type name that is not in the list."""


def table() -> dict[str, list[str]]:
    """Each type's name and the globs, matched against a file's name, that make it up."""
    return _table()


def matcher(types: Sequence[str]) -> Callable[[str], bool] | None:
    """Whether a path's file name is of one of the named types ("!" before a name excludes
    that type instead); None when no type is named. An ``UnknownType`` for a bad name."""
    if not types:
        return None
    keep = _name_regex([name for name in types if not name.startswith("!")])
    drop = _name_regex([name[1:] for name in types if name.startswith("!")])

    def match(path: str) -> bool:
        name = path.rpartition("/")[2]
        return (keep is None or keep.match(name) is not None) and (
            drop is None or drop.match(name) is None
        )

    return match


def _name_regex(types: Sequence[str]) -> re.Pattern[str] | None:
    if not types:
        return None
    known = _table()
    globs = []
    for name in types:
        if name == "all":
            globs += [glob for group in known.values() for glob in group]
        elif name in known:
            globs += known[name]
        else:
            raise UnknownType(f"unrecognized file type: {name} (see --type-list)")
    return re.compile("|".join(map(fnmatch.translate, globs)))


@functools.cache
def _table() -> dict[str, list[str]]:
    # Read once, and only by a search that names a type.
    table: dict[str, list[str]] = {}
    for entry in _LIST.replace("\n    ", " ").splitlines():
        name, _, globs = entry.partition(": ")
        table[name] = globs.split()
    return table


# rg 13's list: "name: glob glob ..."; an indented line continues the one before.
_LIST = """\
agda: *.agda *.lagda
aidl: *.aidl
amake: *.bp *.mk
asciidoc: *.adoc *.asc *.asciidoc
asm: *.S *.asm *.s
asp: *.ascx *.ascx.cs *.ascx.vb *.aspx *.aspx.cs *.aspx.vb
ats: *.ats *.dats *.hats *.sats
avro: *.avdl *.avpr *.avsc
awk: *.awk
bazel: *.BUILD *.bazel *.bazelrc *.bzl BUILD WORKSPACE
bitbake: *.bb *.bbappend *.bbclass *.conf *.inc
brotli: *.br
buildstream: *.bst
bzip2: *.bz2 *.tbz2
c: *.[chH] *.[chH].in *.cats
cabal: *.cabal
cbor: *.cbor
ceylon: *.ceylon
clojure: *.clj *.cljc *.cljs *.cljx
cmake: *.cmake CMakeLists.txt
coffeescript: *.coffee
config: *.cfg *.conf *.config *.ini
coq: *.v
cpp: *.[ChH] *.[ChH].in *.[ch]pp *.[ch]pp.in *.[ch]xx *.[ch]xx.in *.cc *.cc.in *.hh *.hh.in
    *.inl
creole: *.creole
crystal: *.cr Projectfile
cs: *.cs
csharp: *.cs
cshtml: *.cshtml
css: *.css *.scss
csv: *.csv
cython: *.pxd *.pxi *.pyx
d: *.d
dart: *.dart
dhall: *.dhall
diff: *.diff *.patch
docker: *Dockerfile*
dvc: *.dvc Dvcfile
ebuild: *.ebuild
edn: *.edn
elisp: *.el
elixir: *.eex *.ex *.exs
elm: *.elm
erb: *.erb
erlang: *.erl *.hrl
fidl: *.fidl
fish: *.fish
flatbuffers: *.fbs
fortran: *.F *.F77 *.F90 *.F95 *.f *.f77 *.f90 *.f95 *.pfo
fsharp: *.fs *.fsi *.fsx
fut: .fut
gap: *.g *.gap *.gd *.gi *.tst
gn: *.gn *.gni
go: *.go
gradle: *.gradle
groovy: *.gradle *.groovy
gzip: *.gz *.tgz
h: *.h *.hpp
haml: *.haml
haskell: *.c2hs *.cpphs *.hs *.hsc *.lhs
hbs: *.hbs
hs: *.hs *.lhs
html: *.ejs *.htm *.html
idris: *.idr *.lidr
java: *.java *.jsp *.jspx *.properties
jinja: *.j2 *.jinja *.jinja2
jl: *.jl
js: *.js *.jsx *.vue
json: *.json composer.lock
jsonl: *.jsonl
julia: *.jl
jupyter: *.ipynb *.jpynb
k: *.k
kotlin: *.kt *.kts
less: *.less
license: *[.-]LICEN[CS]E* AGPL-*[0-9]* APACHE-*[0-9]* BSD-*[0-9]* CC-BY-* COPYING COPYING[.-]*
    COPYRIGHT COPYRIGHT[.-]* EULA EULA[.-]* GFDL-*[0-9]* GNU-*[0-9]* GPL-*[0-9]* LGPL-*[0-9]*
    LICEN[CS]E LICEN[CS]E[.-]* MIT-*[0-9]* MPL-*[0-9]* NOTICE NOTICE[.-]* OFL-*[0-9]* PATENTS
    PATENTS[.-]* UNLICEN[CS]E UNLICEN[CS]E[.-]* agpl[.-]* gpl[.-]* lgpl[.-]* licen[cs]e
    licen[cs]e.*
lisp: *.el *.jl *.lisp *.lsp *.sc *.scm
lock: *.lock package-lock.json
log: *.log
lua: *.lua
lz4: *.lz4
lzma: *.lzma
m4: *.ac *.m4
make: *.mak *.mk [Gg][Nn][Uu]makefile [Gg][Nn][Uu]makefile.am [Gg][Nn][Uu]makefile.in
    [Mm]akefile [Mm]akefile.am [Mm]akefile.in
mako: *.mako *.mao
man: *.[0-9][cEFMmpSx] *.[0-9lnpx]
markdown: *.markdown *.md *.mdown *.mkdn
matlab: *.m
md: *.markdown *.md *.mdown *.mkdn
meson: meson.build meson_options.txt
minified: *.min.css *.min.html *.min.js
mint: *.mint
mk: mkfile
ml: *.ml
msbuild: *.csproj *.fsproj *.proj *.props *.targets *.vcxproj
nim: *.nim *.nimble *.nimf *.nims
nix: *.nix
objc: *.h *.m
objcpp: *.h *.mm
ocaml: *.ml *.mli *.mll *.mly
org: *.org *.org_archive
pascal: *.dpr *.inc *.lpr *.pas *.pp
pdf: *.pdf
perl: *.PL *.perl *.pl *.plh *.plx *.pm *.t
php: *.php *.php3 *.php4 *.php5 *.phtml
po: *.po
pod: *.pod
postscript: *.eps *.ps
protobuf: *.proto
ps: *.cdxml *.ps1 *.ps1xml *.psd1 *.psm1
puppet: *.erb *.pp *.rb
purs: *.purs
py: *.py
qmake: *.prf *.pri *.pro
qml: *.qml
r: *.R *.Rmd *.Rnw *.r
racket: *.rkt
rdoc: *.rdoc
readme: *README README*
red: *.r *.red *.reds
robot: *.robot
rst: *.rst
ruby: *.gemspec *.rb *.rbw .irbrc Gemfile Rakefile config.ru
rust: *.rs
sass: *.sass *.scss
scala: *.sbt *.scala
sh: *.bash *.bashrc *.csh *.cshrc *.ksh *.kshrc *.sh *.tcsh *.zsh .bash_login .bash_logout
    .bash_profile .bashrc .cshrc .kshrc .login .logout .profile .tcshrc .zlogin .zlogout
    .zprofile .zshenv .zshrc bash_login bash_logout bash_profile bashrc profile zlogin zlogout
    zprofile zshenv zshrc
slim: *.skim *.slim *.slime
smarty: *.tpl
sml: *.sig *.sml
soy: *.soy
spark: *.spark
spec: *.spec
sql: *.psql *.sql
stylus: *.styl
sv: *.h *.sv *.svh *.v *.vg
svg: *.svg
swift: *.swift
swig: *.def *.i
systemd: *.automount *.conf *.device *.link *.mount *.path *.scope *.service *.slice *.socket
    *.swap *.target *.timer
taskpaper: *.taskpaper
tcl: *.tcl
tex: *.bib *.cls *.dtx *.ins *.ltx *.sty *.tex
textile: *.textile
tf: *.tf
thrift: *.thrift
toml: *.toml Cargo.lock
ts: *.ts *.tsx
twig: *.twig
txt: *.txt
typoscript: *.ts *.typoscript
vala: *.vala
vb: *.vb
vcl: *.vcl
verilog: *.sv *.svh *.v *.vh
vhdl: *.vhd *.vhdl
vim: *.vim
vimscript: *.vim
webidl: *.idl *.webidl *.widl
wiki: *.mediawiki *.wiki
xml: *.dtd *.rng *.sch *.xhtml *.xjb *.xml *.xml.dist *.xsd *.xsl *.xslt
xz: *.txz *.xz
yacc: *.y
yaml: *.yaml *.yml
yang: *.yang
z: *.Z
zig: *.zig
zsh: *.zsh .zlogin .zlogout .zprofile .zshenv .zshrc zlogin zlogout zprofile zshenv zshrc
zstd: *.zst *.zstd
"""
