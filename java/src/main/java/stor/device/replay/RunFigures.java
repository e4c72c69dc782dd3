package stor.device.replay;

import java.time.ZonedDateTime;
import java.time.format.DateTimeFormatter;
import java.time.temporal.ChronoUnit;
import java.util.Locale;
import org.HdrHistogram.Histogram;
import stor.device.replay.Figures.Section;
import stor.device.replay.Figures.Unit;
import stor.device.replay.Latencies.Operation;
import stor.device.replay.Request.Kind;
import stor.device.store.StorePeaks;
import stor.device.store.StoreSettings;
import stor.device.store.StoreStats;

/** Reckons the figures of a run: first of all what a system with such a load would need. */
final class RunFigures {
    static final String NEEDS = "needs";
    static final String RUN = "run";
    static final double[] PERCENTILES = {50, 90, 99, 99.9, 99.99};
    /** What a map of the same ranges took on the heap of a JVM, as docs/performance.md has it. */
    private static final int HEAP_BYTES_PER_RANGE = 112;
    /** A percentile is left out unless so many samples lie beyond it. */
    private static final int SAMPLES_BEYOND = 5;
    private static final int TRAILER_BYTES = 8;

    private final ReplayOptions options;
    private final TraceLoad load;
    private final Replay replay;
    private final StoreStats stats;
    private final Figures figures = new Figures();

    RunFigures(ReplayOptions options, TraceLoad load, Replay replay) {
        this.options = options;
        this.load = load;
        this.replay = replay;
        stats = replay.stats();
    }

    /** Gives all figures; the verdict says how the run has ended. */
    Figures all(String verdict, double seconds, long badLines, int devices) {
        addNeeds(devices);
        addLoad(badLines, devices);
        addWork(seconds);
        for (Operation operation : Operation.values()) {
            addLatencies(operation);
        }
        addRun(verdict);
        return figures;
    }

    /** Describes the requests in a sentence. */
    static String mix(TraceLoad load) {
        TraceLoad.Rate total = load.total();
        long all = Math.max(1, total.requests());
        return text("%,d requests: %.1f %% writes (%s), %.1f %% reads (%s), %.1f %% discards (%s)",
                total.requests(), 100.0 * total.requests(Kind.WRITE) / all,
                ShortNumbers.shortenBytes(total.bytes(Kind.WRITE)),
                100.0 * total.requests(Kind.READ) / all,
                ShortNumbers.shortenBytes(total.bytes(Kind.READ)),
                100.0 * total.requests(Kind.DISCARD) / all,
                ShortNumbers.shortenBytes(total.bytes(Kind.DISCARD)));
    }

    /** Tells whether so many samples say anything about a percentile. */
    static boolean carries(long samples, double percentile) {
        return samples * (100 - percentile) >= 100 * SAMPLES_BEYOND;
    }

    private void addNeeds(int devices) {
        Mirror mirror = replay.mirror();
        long sector = options.store().sectorSize();
        String estimate = options.sampled() ? "; estimated from one page in " + Mirror.SAMPLE : "";
        StorePeaks peaks = stats.peaks();
        Section needs = figures.section(NEEDS, "What a system with this load needs");
        needs.add("workingSetBytes", "working set", mirror.touchedSectors() * sector, Unit.BYTES,
                "distinct sectors read or written" + estimate);
        needs.add("deviceBytes", "device size", load.deviceBytes(), Unit.BYTES,
                "to the end of the highest request" + (devices > 1 ? " of each device" : ""));
        needs.add("liveBytes", "live data at the end", mirror.liveSectors() * sector, Unit.BYTES,
                "written and not discarded since" + estimate);
        needs.add("overwriteShare", "overwrites",
                share(mirror.overwrittenSectors(), mirror.writtenSectors()), Unit.SHARE,
                "of the sectors written held data already" + estimate);
        addRates(needs);
        needs.add("peakRanges", "ranges at the peak", peaks.ranges(), Unit.COUNT,
                text("in all maps when they took most memory; at most %,d in memory maps and %,d in"
                        + " files", peaks.memoryRanges(), peaks.fileRanges()));
        needs.add("peakNativeBytes", "native memory", peaks.recordBytes(), Unit.BYTES,
                text("what the limit has to allow, snapshots included: %d bytes a range, %d more"
                        + " for one in a memory map; all told, a process takes some 150 for a"
                        + " range", StoreStats.RANGE_BYTES, StoreStats.BUFFER_BYTES));
        needs.add("nativeBytesPerRange", "native bytes per range",
                share(peaks.recordBytes(), peaks.ranges()), Unit.FACTOR, "at the peak");
        needs.add("deviceBytesPerRange", "live bytes per range at the end",
                share(mirror.liveSectors() * sector, stats.fileRanges()), Unit.BYTES, estimate);
        needs.add("heapMapBytes", "heap of a TreeMap instead",
                (long) HEAP_BYTES_PER_RANGE * peaks.ranges(), Unit.BYTES,
                text("for the same ranges at %d bytes each, and every object for the garbage"
                        + " collector to visit", HEAP_BYTES_PER_RANGE));
        needs.add("peakBufferBytes", "buffers", peaks.bufferedBytes(), Unit.BYTES,
                "accepted and not yet written out, overwritten bytes included, at most");
        needs.add("peakFileBytes", "disk space", peaks.fileBytes(), Unit.BYTES,
                options.compacts() ? "at most, with compaction" : "at most; there was no compaction");
        needs.add("fileBytesWithoutCompaction", "disk space without compaction",
                stats.flushedBytes() / sector * (sector + TRAILER_BYTES), Unit.BYTES,
                "all that was ever flushed");
        needs.add("writeAmplification", "write amplification",
                share(stats.appendedBytes(), replay.writtenBytes()), Unit.FACTOR,
                "bytes appended to files for each byte written; below 1 where buffers absorb"
                        + " overwrites");
    }

    private void addRates(Section needs) {
        double seconds = load.seconds();
        if (seconds == 0) {
            needs.add("traceClock", "speed of the trace", "not known", Unit.TEXT,
                    "its requests bear no times");
            return;
        }
        long bytes = load.total().bytes();
        needs.add("requestsPerSecond", "requests a second", load.total().requests() / seconds,
                Unit.PER_SECOND, text("on average, by the trace's clock, in %,.1f s", seconds));
        needs.add("bytesPerSecond", "bytes a second", bytes / seconds, Unit.BYTES_PER_SECOND,
                "read and written, on average");
        if (seconds > 60) {
            needs.add("busiestMinuteRequestsPerSecond", "requests a second, busiest minute",
                    load.busiestMinuteRequests() / 60.0, Unit.PER_SECOND,
                    "minutes count from the first request");
            needs.add("busiestMinuteBytesPerSecond", "bytes a second, busiest minute",
                    load.busiestMinuteBytes() / 60.0, Unit.BYTES_PER_SECOND,
                    "which may be another minute");
        } else {
            needs.add("busiestMinute", "busiest minute", "as on average", Unit.TEXT,
                    "the trace is no longer than a minute");
        }
    }

    private void addLoad(long badLines, int devices) {
        Section section = figures.section("load", "The trace"
                + (options.repeat() > 1 ? ", once" : ""));
        TraceLoad.Rate total = load.total();
        section.add("requests", "requests", total.requests(), Unit.COUNT);
        section.add("reads", "reads", total.requests(Kind.READ), Unit.COUNT);
        section.add("readBytes", "bytes read", total.bytes(Kind.READ), Unit.BYTES);
        section.add("writes", "writes", total.requests(Kind.WRITE), Unit.COUNT);
        section.add("writtenBytes", "bytes written", total.bytes(Kind.WRITE), Unit.BYTES);
        section.add("discards", "discards", total.requests(Kind.DISCARD), Unit.COUNT);
        section.add("discardedBytes", "bytes discarded", total.bytes(Kind.DISCARD), Unit.BYTES);
        section.add("seconds", "time", load.seconds(), Unit.SECONDS, "by the trace's clock");
        section.add("devices", "devices", devices, Unit.COUNT);
        section.add("badLines", "lines skipped", badLines, Unit.COUNT,
                "that made no sense");
    }

    private void addWork(double seconds) {
        Section work = figures.section("work", "The replay");
        work.add("requestsServed", "requests served", replay.requests(), Unit.COUNT,
                text("in %.1f s, checks and work in the background included", seconds));
        work.add("servedPerSecond", "speed", replay.requests() / seconds, Unit.PER_SECOND);
        work.add("checkedBytes", "bytes checked", replay.checkedBytes(), Unit.BYTES);
        work.add("flushes", "flushes", stats.flushes(), Unit.COUNT,
                text("%d more were killed", replay.killedFlushes()));
        work.add("flushedBytes", "bytes flushed", stats.flushedBytes(), Unit.BYTES);
        work.add("compactions", "compactions",
                replay.latencies().of(Operation.COMPACT).getTotalCount(), Unit.COUNT);
        work.add("movedBytes", "bytes moved", stats.movedBytes(), Unit.BYTES);
        work.add("freedSegments", "segments freed", stats.freedSegments(), Unit.COUNT);
        work.add("peakSegments", "segments", stats.peaks().segments(), Unit.COUNT,
                text("at most; %,d at the end", stats.segments()));
        work.add("snapshots", "snapshots", replay.snapshots(), Unit.COUNT,
                text("%d more were given up for want of memory", replay.snapshotsGivenUp()));
        work.add("refusedInserts", "inserts refused", stats.refusedInserts(), Unit.COUNT,
                "at the memory limit; all done after a flush");
        work.add("pooledBuffers", "buffers made", replay.buffers().allocated(), Unit.COUNT);
    }

    private void addLatencies(Operation operation) {
        Histogram nanos = replay.latencies().of(operation);
        long count = nanos.getTotalCount();
        Section section = figures.section(operation + "Latency", operation.toString());
        section.add("count", "count", count, Unit.COUNT);
        if (count == 0) {
            return;
        }
        section.add("mean", "mean", nanos.getMean() / 1e3, Unit.MICROSECONDS);
        for (double percentile : PERCENTILES) {
            if (carries(count, percentile)) {
                section.add(name(percentile), name(percentile),
                        nanos.getValueAtPercentile(percentile) / 1e3, Unit.MICROSECONDS);
            }
        }
        section.add("max", "max", nanos.getMaxValue() / 1e3, Unit.MICROSECONDS);
    }

    static String name(double percentile) {
        return (percentile + "%").replace(".0%", "%");
    }

    private void addRun(String verdict) {
        StoreSettings store = options.store();
        Section run = figures.section(RUN, "The run");
        run.add("trace", "trace", options.trace(), Unit.TEXT);
        run.add("date", "date", ZonedDateTime.now().truncatedTo(ChronoUnit.SECONDS)
                .format(DateTimeFormatter.ISO_OFFSET_DATE_TIME), Unit.TEXT);
        run.add("machine", "machine", Machine.description(), Unit.TEXT);
        run.add("result", "result", verdict, Unit.TEXT);
        run.add("verify", "check", options.sampled() ? "sample" : "full", Unit.TEXT);
        run.add("passes", "passes over the trace", options.repeat(), Unit.COUNT);
        run.add("seed", "seed", options.seed(), Unit.COUNT);
        run.add("sectorSize", "sector size", store.sectorSize(), Unit.BYTES);
        run.add("segmentSize", "segment size", store.segmentBytes(), Unit.BYTES);
        run.add("bufferSize", "buffer size", store.bufferBytes(), Unit.BYTES);
        run.add("memoryLimit", "memory limit", store.memoryLimit(), Unit.BYTES);
        run.add("levels", "levels of a map", store.height(), Unit.COUNT);
        run.add("flushEvery", "requests between flushes", options.flushEvery(), Unit.COUNT);
        run.add("compactEvery", "requests between compactions",
                options.compacts() ? options.compactEvery() : "no compactions",
                options.compacts() ? Unit.COUNT : Unit.TEXT);
        run.add("snapshotEvery", "requests between snapshots",
                options.takesSnapshots() ? options.snapshotEvery() : "no snapshots",
                options.takesSnapshots() ? Unit.COUNT : Unit.TEXT, "or more");
        run.add("killedFlushes", "flushes that are killed", options.failFlushEvery() == 0 ? "none"
                : "one in " + options.failFlushEvery(), Unit.TEXT);
        run.add("background", "flushes and compactions",
                options.foreground() ? "between requests" : "beside requests", Unit.TEXT);
    }

    private static double share(double part, double whole) {
        return whole == 0 ? 0 : part / whole;
    }

    private static String text(String format, Object... values) {
        return String.format(Locale.ROOT, format, values);
    }
}
