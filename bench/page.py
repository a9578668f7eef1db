"""What bench/report and bench/peers share: running programs, and writing their parts of a page."""
import os
import shutil
import subprocess


class Failed(Exception):
    pass


def run(command, **options):
    """The options are subprocess.run's, a time limit for example."""
    try:
        done = subprocess.run(command, capture_output=True, text=True, errors="replace", **options)
    except subprocess.TimeoutExpired as late:
        raise Failed(f"{' '.join(map(str, command))}: has not ended after {late.timeout} s") from late
    if done.returncode != 0:
        raise Failed(f"{' '.join(map(str, command))}: status {done.returncode}\n{done.stdout}{done.stderr}")
    return done


def need(packages, hint=""):
    """Of a dictionary from signs, which are commands or files, to the Debian packages that bring them."""
    for sign, package in packages.items():
        if not is_here(sign):
            raise Failed(f"{sign} is missing (Debian's package {package}){hint}")


def is_here(sign):
    """Also for those that lie where only root looks."""
    return shutil.which(sign, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin") is not None or os.path.exists(sign)


def figure(value):
    return f"{value:.1f}".removesuffix(".0").replace("-", "−")


def table(heads, rows, left=1):
    """Markdown; the first columns are texts, so many as `left` says, and the others numbers."""
    rule = ["---" if index < left else "---:" for index in range(len(heads))]
    return "".join("| " + " | ".join(cells) + " |\n" for cells in [heads, rule, *rows]) + "\n"


def parts_of(page, *names):
    """Those that the page has marks for, at least one."""
    if not page.is_file():
        raise Failed(f"{page} is not there")
    found = [name for name in names if f"<!-- {name} -->" in page.read_text()]
    if not found:
        raise Failed(f"{page} has no mark {' or '.join(f'<!-- {name} -->' for name in names)}")
    return found


def put_part(page, name, text):
    """Puts the text between the page's marks <!-- name --> and <!-- /name -->, and leaves the rest alone."""
    begin, end = f"<!-- {name} -->\n", f"<!-- /{name} -->"
    before, found, rest = page.read_text().partition(begin)
    old, ended, after = rest.partition(end)
    if not found or not ended:
        raise Failed(f"{page} has no part between the marks {begin.strip()} and {end}")
    page.write_text(before + begin + "\n" + text.strip() + "\n\n" + end + after)
