'''The one table compare.py prints: what, N, kelvane, floor or peer, ratio,
target, met.

A row's ratio is kelvane / floor (for paired times the median of the
per-round ratios, otherwise the quotient of the two figures). A target is an
upper bound on that ratio (or an exact count); rows without a target are
there for context and show "-".
'''

from dataclasses import dataclass, field


@dataclass
class Row:
    what: str
    n: str
    kelvane: str
    floor: str
    ratio: float = None
    limit: float = None  # met when ratio <= limit
    exact: bool = False  # met when ratio == limit (counts)
    note: str = ''
    missing: bool = False
    target_text: str = ''
    verdict: bool = None  # for targets no single ratio expresses

    @property
    def target(self):
        if self.target_text:
            return self.target_text
        if self.limit is None:
            return '-'
        if self.exact:
            return '= %g' % self.limit
        return '<= %s' % _ratio(self.limit)

    @property
    def met(self):
        if self.missing:
            return 'not measured'
        if self.verdict is not None:
            return 'yes' if self.verdict else 'no'
        if self.limit is None:
            return '-'
        if self.ratio is None:
            return 'no'
        if self.exact:
            return 'yes' if self.ratio == self.limit else 'no'
        return 'yes' if self.ratio <= self.limit + 1e-12 else 'no'


@dataclass
class Table:
    rows: list = field(default_factory=list)
    notes: list = field(default_factory=list)

    def add(self, row):
        self.rows.append(row)
        return row

    def render(self, markdown=True):
        header = ['what', 'N', 'kelvane', 'floor or peer', 'ratio', 'target', 'met']
        body = [[r.what + (' (%s)' % r.note if r.note else ''), r.n, r.kelvane, r.floor,
                 '-' if r.ratio is None else (_ratio(r.ratio) if not r.exact else '%g' % r.ratio),
                 r.target, r.met] for r in self.rows]
        if markdown:
            lines = ['| ' + ' | '.join(header) + ' |', '|' + '---|' * len(header)]
            lines += ['| ' + ' | '.join(cell.replace('|', '/') for cell in row) + ' |'
                      for row in body]
        else:
            widths = [max(len(row[i]) for row in body + [header]) for i in range(len(header))]
            lines = ['  '.join(cell.ljust(w) for cell, w in zip(row, widths)).rstrip()
                     for row in [header] + body]
        return '\n'.join(lines)


def _ratio(value):
    if value >= 100:
        return '%.0fx' % value
    if value >= 10:
        return '%.1fx' % value
    if value >= 0.1:
        return '%.2fx' % value
    return '%.3fx' % value


def instructions(count):
    return '%s M' % format_number(count / 1e6)


def per_device(count):
    return '%s k' % format_number(count / 1e3)


def millis(seconds):
    return '%s ms' % format_number(seconds * 1000)


def seconds(value):
    return '%.2f s' % value


def mebibytes(kib):
    return '%.1f MiB' % (kib / 1024)


def format_number(value):
    if value >= 100:
        return '{:,.0f}'.format(value)
    if value >= 10:
        return '{:,.1f}'.format(value)
    return '{:,.2f}'.format(value)
