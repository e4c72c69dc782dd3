package stor.device.replay;

import java.io.IOException;
import java.io.InputStream;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.util.List;
import java.util.Locale;
import java.util.function.ToDoubleFunction;
import org.HdrHistogram.Histogram;
import org.jfree.data.category.DefaultCategoryDataset;
import org.jfree.data.xy.XYSeries;
import org.jfree.data.xy.XYSeriesCollection;
import stor.device.replay.Figures.Figure;
import stor.device.replay.Figures.Section;
import stor.device.replay.Latencies.Operation;
import stor.device.replay.Request.Kind;
import stor.device.replay.StoreSamples.Sample;

/**
 * The report of a run: one HTML page that needs nothing else, for screens from 400 pixels on, light
 * or dark.
 */
final class Report {
    /** Stands near the beginning of a page, and tells it from other files. */
    static final String MARK = "<title>Block store replay";
    private static final int GAP_INTERVALS = 3;

    private final ReplayOptions options;
    private final TraceLoad load;
    private final Replay replay;
    private final Figures figures;
    private final List<AddressPicture> pictures;
    private final List<Sample> samples;
    private final Charts charts = new Charts();
    private final StringBuilder html = new StringBuilder();

    Report(ReplayOptions options, TraceLoad load, Replay replay, Figures figures,
            List<AddressPicture> pictures) {
        this.options = options;
        this.load = load;
        this.replay = replay;
        this.figures = figures;
        this.pictures = pictures;
        samples = replay.samples().all();
    }

    /** Writes the page. */
    String html() {
        String name = escape(String.valueOf(options.trace().getFileName()));
        add("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">%s: %s</title>\n"
                + "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                + "<style>\n%s</style></head><body>\n", MARK, name, css());
        Section run = section(RunFigures.RUN);
        add("<h1>Block store replay: %s</h1>\n<p>%s</p>\n<p>%s</p>\n"
                + "<p class=\"faint\">%s · %s</p>\n",
                name, escape(RunFigures.mix(load)), escape(run.text("result")),
                escape(run.text("date")), escape(run.text("machine")));
        addTable(section(RunFigures.NEEDS));
        addTraceCharts();
        addStoreCharts();
        addLatencies();
        addPictures();
        for (Section section : figures.sections()) {
            if (!section.key().equals(RunFigures.NEEDS) && !isLatency(section)) {
                addTable(section);
            }
        }
        add("</body></html>\n");
        return html.toString();
    }

    // --- Charts ----------------------------------------------------------------------------------

    private void addTraceCharts() {
        if (load.seconds() == 0) {
            return;
        }
        add("<h2>The trace, by its own clock</h2>\n<div class=\"charts\">\n");
        String axis = "seconds of the trace";
        addFigure("Requests a second", charts.overTime(axis, "requests/s", false, lines(
                step("reads", rate -> rate.requests(Kind.READ)),
                step("writes", rate -> rate.requests(Kind.WRITE)),
                step("discards", rate -> rate.requests(Kind.DISCARD)))),
                "How many requests came, each point over " + stepLength() + ".");
        addFigure("Bytes a second", charts.overTime(axis, "bytes/s", true, lines(
                step("read", rate -> rate.bytes(Kind.READ)),
                step("written", rate -> rate.bytes(Kind.WRITE)))),
                "How many bytes they read and wrote, each point over " + stepLength() + ".");
        add("</div>\n");
    }

    private void addStoreCharts() {
        add("<h2>In the course of the replay</h2>\n<p class=\"faint\">By the clock of this run,"
                + " reading back included. Where a line is broken, the store was busy with"
                + " something that let nobody look.</p>\n<div class=\"charts\">\n");
        String axis = "seconds of the run";
        addFigure("Ranges", charts.overTime(axis, "ranges", false, lines(
                series("in memory maps", sample -> sample.stats().memoryRanges()),
                series("in the file map", sample -> sample.stats().fileRanges()))),
                "The memory maps fill up with writes until a flush empties them. In the file map,"
                        + " neighbours that lie in sequence are one range; compaction writes in the"
                        + " order of the device and so makes it shrink.");
        addFigure("Bytes in buffers", charts.overTime(axis, "bytes buffered", true, lines(
                series("buffered", sample -> sample.stats().bufferedBytes()),
                series("limit", sample -> options.store().bufferBytes()))),
                "Bytes accepted and not yet written out, overwritten ones included. At the limit a"
                        + " write waits for a flush.");
        addFigure("Native memory", charts.overTime(axis, "bytes of records", true, memory()),
                "Charged for the ranges of all maps, those of snapshots included, and as the"
                        + " library itself counted when it last swept, which it does at most every"
                        + " 5 seconds.");
        addFigure("Disk space", charts.overTime(axis, "bytes in files", true, lines(
                series("segment files", sample -> sample.stats().fileBytes()))),
                "What the segment files take. Flushes append, compaction moves what is live and"
                        + " deletes files.");
        addFigure("Speed of the replay", charts.overTime(axis, "requests/s", false, lines(speed())),
                "Requests served a second by this run, with all checks; 0 while the device is read"
                        + " back.");
        addFigure("How long operations take",
                charts.byCategory("percentile", "microseconds", percentiles()),
                "A point for each percentile that enough operations stand behind. The slowest"
                        + " writes had to flush or to wait for a flush. The files are in the"
                        + " system's cache: nothing waits for a disk.");
        add("</div>\n");
    }

    private XYSeriesCollection memory() {
        XYSeriesCollection lines = lines(
                series("charged", sample -> sample.stats().recordBytes()),
                series("as last swept", sample -> sample.stats().sweptBytes()));
        long limit = options.store().memoryLimit();
        if (limit < 4 * replay.peakRecordBytes()) {
            lines.addSeries(series("limit", sample -> limit));
        }
        return lines;
    }

    private String stepLength() {
        return ShortNumbers.shorten(load.stepSeconds()) + (load.stepSeconds() == 1
                ? " second" : " seconds");
    }

    /** Steps in which nothing came are zeros. */
    private XYSeries step(String name, ToDoubleFunction<TraceLoad.Rate> value) {
        XYSeries series = new XYSeries(name);
        double length = load.stepSeconds();
        for (long step = load.steps().firstKey(); step <= load.steps().lastKey(); step++) {
            TraceLoad.Rate rate = load.steps().get(step);
            series.add(step * length, rate == null ? 0 : value.applyAsDouble(rate) / length);
        }
        return series;
    }

    private XYSeries series(String name, ToDoubleFunction<Sample> value) {
        XYSeries series = new XYSeries(name);
        for (int i = 0; i < samples.size(); i++) {
            addGap(series, i);
            series.add(samples.get(i).seconds(), value.applyAsDouble(samples.get(i)));
        }
        return series;
    }

    private XYSeries speed() {
        XYSeries series = new XYSeries("requests served");
        for (int i = 1; i < samples.size(); i++) {
            Sample last = samples.get(i - 1);
            Sample sample = samples.get(i);
            if (!addGap(series, i)) {
                series.add(sample.seconds(), (sample.requests() - last.requests())
                        / (sample.seconds() - last.seconds()));
            }
        }
        return series;
    }

    /** Breaks a line before a sample that came late. */
    private boolean addGap(XYSeries series, int i) {
        double since = i == 0 ? 0 : samples.get(i).seconds() - samples.get(i - 1).seconds();
        boolean isGap = since > GAP_INTERVALS * replay.samples().intervalSeconds();
        if (isGap) {
            series.add(samples.get(i).seconds() - since / 2, null);
        }
        return isGap;
    }

    private static XYSeriesCollection lines(XYSeries... series) {
        XYSeriesCollection lines = new XYSeriesCollection();
        for (XYSeries line : series) {
            lines.addSeries(line);
        }
        return lines;
    }

    private DefaultCategoryDataset percentiles() {
        DefaultCategoryDataset dataset = new DefaultCategoryDataset();
        for (Operation operation : Operation.values()) {
            Histogram nanos = replay.latencies().of(operation);
            for (double percentile : RunFigures.PERCENTILES) {
                if (RunFigures.carries(nanos.getTotalCount(), percentile)) {
                    dataset.addValue(nanos.getValueAtPercentile(percentile) / 1e3,
                            operation, RunFigures.name(percentile));
                }
            }
        }
        return dataset;
    }

    // --- Pictures and tables ---------------------------------------------------------------------

    private void addPictures() {
        if (pictures.isEmpty() || pictures.get(0).cells().length == 0) {
            return;
        }
        add("<h2>The device, by the age of its files</h2>\n<p>Left to right and top to bottom,"
                + " every cell is %s of the device, coloured by how old the segment file is that"
                + " has most of it. What was never written is left out, and long holes are"
                + " shortened.</p>\n<p>", ShortNumbers.shortenBytes(pictures.get(0).cellBytes()));
        for (int age = AddressPicture.HOLE; age < AddressPicture.AGES; age++) {
            add("<span class=\"key\"><span class=\"swatch\" style=\"background:var(--cell-%d)\">"
                    + "</span>%s</span> ", age + 1, age == AddressPicture.HOLE ? "discarded"
                            : age == 0 ? "oldest" : age == AddressPicture.AGES - 1 ? "newest"
                                    : String.valueOf(age + 1));
        }
        add("</p>\n");
        String[] titles = {"Before the last compaction", "After it"};
        for (int i = 0; i < pictures.size(); i++) {
            AddressPicture picture = pictures.get(i);
            addFigure(titles[i], Charts.cells(picture.cells(), AddressPicture.COLUMNS),
                    String.format(Locale.ROOT, "%,d segment files hold %s that is live.",
                            picture.segments(), ShortNumbers.shortenBytes(picture.liveBytes())));
        }
    }

    private void addLatencies() {
        add("<h2>Latencies in microseconds</h2>\n<p class=\"faint\">A percentile is left out where"
                + " fewer than five operations took longer.</p>\n<div class=\"wide\"><table><tr>"
                + "<th>operation</th><th class=\"n\">count</th><th class=\"n\">mean</th>");
        for (double percentile : RunFigures.PERCENTILES) {
            add("<th class=\"n\">%s</th>", RunFigures.name(percentile));
        }
        add("<th class=\"n\">max</th></tr>\n");
        for (Section section : figures.sections()) {
            if (isLatency(section)) {
                add("<tr><td>%s</td>", section.title());
                addCell(section, "count");
                addCell(section, "mean");
                for (double percentile : RunFigures.PERCENTILES) {
                    addCell(section, RunFigures.name(percentile));
                }
                addCell(section, "max");
                add("</tr>\n");
            }
        }
        add("</table></div>\n");
    }

    private void addCell(Section section, String name) {
        add("<td class=\"n\">%s</td>", section.text(name).replace(" µs", ""));
    }

    private void addTable(Section section) {
        add("<h2>%s</h2>\n<table>", escape(section.title()));
        for (Figure figure : section.figures()) {
            add("<tr><td>%s</td><td>%s%s</td></tr>\n", escape(figure.label()),
                    escape(figure.text()), figure.note().isEmpty() ? ""
                            : " <span class=\"faint\">" + escape(figure.note()) + "</span>");
        }
        add("</table>\n");
    }

    private void addFigure(String title, String svg, String caption) {
        add("<figure><h3>%s</h3>%s<figcaption>%s</figcaption></figure>\n", title, svg,
                escape(caption));
    }

    private Section section(String key) {
        return figures.sections().stream().filter(section -> section.key().equals(key))
                .findFirst().orElseThrow();
    }

    private static boolean isLatency(Section section) {
        return section.key().endsWith("Latency");
    }

    private void add(String format, Object... values) {
        html.append(String.format(Locale.ROOT, format, values));
    }

    private static String css() {
        try (InputStream text = Report.class.getResourceAsStream("page.css")) {
            return new String(text.readAllBytes(), StandardCharsets.UTF_8);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    private static String escape(String text) {
        return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;");
    }
}
