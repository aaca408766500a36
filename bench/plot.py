"""Draws figures over the size of an URB's data as SVG, for light and dark pages."""
import math

WIDTH, HEIGHT = 360, 300
LEFT, RIGHT, TOP, BOTTOM = 62, 24, 44, 56
# Colours that differ in lightness, too; the last series is what is compared with.
STYLE = """
  svg { font: 12px system-ui, sans-serif; background: #ffffff; }
  text { fill: #24292f; } .grid { stroke: #d0d7de; } .axis { stroke: #57606a; }
  .s0 { stroke: #0550ae; fill: #0550ae; } .s1 { stroke: #bc4c00; fill: #bc4c00; }
  .s2 { stroke: #6e7781; fill: #6e7781; }
  path { fill: none !important; stroke-width: 2; } .title { font-weight: 600; }
  text.s0, text.s1, text.s2 { stroke: none; }
  @media (prefers-color-scheme: dark) {
    svg { background: #0d1117; }
    text { fill: #e6edf3; } .grid { stroke: #30363d; } .axis { stroke: #8b949e; }
    .s0 { stroke: #58a6ff; fill: #58a6ff; } .s1 { stroke: #f0883e; fill: #f0883e; }
    .s2 { stroke: #8b949e; fill: #8b949e; }
  }
"""

Series = dict[str, list[tuple[int, float]]]  # by name: size and value


def _size(size: float) -> str:
    return (f"{size:.0f} B" if size < 1024 else f"{size / 1024:.0f} KiB" if size < 1 << 20
            else f"{size / (1 << 20):.0f} MiB")


def _panel(left: int, title: str, series: Series) -> list[str]:
    """Both axes are logarithmic."""
    points = [point for line in series.values() for point in line]
    sizes = sorted({size for size, _ in points})
    low = math.floor(math.log10(min(value for _, value in points)))
    high = math.ceil(math.log10(max(value for _, value in points)))
    x0, x1 = left + LEFT, left + WIDTH - RIGHT
    y0, y1 = HEIGHT - BOTTOM, TOP

    def x(size: float) -> float:
        return x0 + (x1 - x0) * math.log(size / sizes[0]) / math.log(sizes[-1] / sizes[0])

    def y(value: float) -> float:
        return y0 + (y1 - y0) * (math.log10(value) - low) / (high - low)

    out = [f'<text class="title" x="{x0}" y="18">{title}</text>']
    for power in range(low, high + 1):
        at = y(10 ** power)
        out.append(f'<line class="grid" x1="{x0}" x2="{x1}" y1="{at:.1f}" y2="{at:.1f}"/>'
                   f'<text x="{x0 - 6}" y="{at + 4:.1f}" text-anchor="end">{10 ** power:,g}</text>')
    out.append(f'<line class="axis" x1="{x0}" x2="{x1}" y1="{y0}" y2="{y0}"/>')
    for size in sizes:
        out.append(f'<text x="{x(size):.1f}" y="{y0 + 18}" text-anchor="middle">{_size(size)}</text>')
    for number, (name, line) in enumerate(series.items()):
        style = f"s{number}"
        path = " L".join(f"{x(size):.1f} {y(value):.1f}" for size, value in line)
        out.append(f'<path class="{style}" d="M{path}"/>')
        out += [f'<circle class="{style}" cx="{x(size):.1f}" cy="{y(value):.1f}" r="3">'
                f"<title>{name}, {_size(size)}: {value:,.3g}</title></circle>"
                for size, value in line]
        at = x0 + number * (x1 - x0) / len(series)
        out.append(f'<circle class="{style}" cx="{at + 4:.1f}" cy="{HEIGHT - 16}" r="4"/>'
                   f'<text x="{at + 13:.1f}" y="{HEIGHT - 12}">{name}</text>')
    return out


def draw(panels: list[tuple[str, Series]]) -> str:
    width = WIDTH * len(panels)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {HEIGHT}" '
           f'width="{width}" height="{HEIGHT}" role="img">', f"<style>{STYLE}</style>"]
    for number, (title, series) in enumerate(panels):
        out += _panel(number * WIDTH, title, series)
    return "\n".join([*out, "</svg>", ""])
