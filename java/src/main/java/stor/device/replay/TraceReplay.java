package stor.device.replay;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Locale;
import org.HdrHistogram.Histogram;
import stor.device.replay.Latencies.Operation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.NativeMemory;
import stor.device.store.StoreStats;

/** The main program: replays a trace, checks every byte, and reports. */
public final class TraceReplay {
    private static final int RIGHT = 0;
    private static final int WRONG = 1;
    private static final int UNUSABLE = 2;
    private static final int STOPPED = 130;

    private static final int PROGRESS_REQUESTS = 256;

    private final ReplayOptions options;
    private final PrintStream out;
    private final StopSignal stop;
    private TraceReader.Request request;
    private long requestNumber;

    private TraceReplay(ReplayOptions options, PrintStream out, StopSignal stop) {
        this.options = options;
        this.out = out;
        this.stop = stop;
    }

    /**
     * Runs the program and ends the JVM with its exit status.
     *
     * @param args the command line; {@code --help} explains it
     */
    public static void main(String[] args) {
        int status = run(args, System.out, System.err);
        if (status != STOPPED) {
            System.exit(status);
        }
        // Otherwise the JVM is ending already, with that status.
    }

    /**
     * Runs the program.
     *
     * @param args the command line
     * @param out takes the summary
     * @param err takes what went wrong
     * @return the exit status
     */
    public static int run(String[] args, PrintStream out, PrintStream err) {
        ReplayOptions options;
        try {
            options = ReplayOptions.parse(args);
        } catch (IllegalArgumentException e) {
            err.println("replay: " + e.getMessage());
            err.print(ReplayOptions.USAGE);
            return UNUSABLE;
        }
        if (options.help()) {
            out.print(ReplayOptions.USAGE);
            return RIGHT;
        }
        try (StopSignal stop = new StopSignal()) {
            return new TraceReplay(options, out, stop).run(err);
        }
    }

    private int run(PrintStream err) {
        try {
            replay();
            return stop.isRequested() ? STOPPED : RIGHT;
        } catch (IOException | LinkageError e) {
            err.println("replay: " + e.getMessage());
            return UNUSABLE;
        } catch (OutOfMemoryError e) {
            err.printf("replay: request %d, %s: %s%n", requestNumber, request, e.getMessage());
            return UNUSABLE;
        } catch (RuntimeException e) {
            err.printf("replay: seed %d, request %d, %s:%n", options.seed(), requestNumber,
                    request);
            err.println(e instanceof Difference ? e.getMessage() : e.toString());
            return WRONG;
        }
    }

    private void replay() throws IOException {
        // Opened first: a trace that cannot be read leaves nothing behind.
        new TraceReader(options.trace()).close();
        Path folder = Files.createTempDirectory(options.folder(), "block-store-");
        try {
            Replay replay = new Replay(options, folder);
            try (replay) {
                replay(replay);
            }
            checkNothingLeft(replay);
        } finally {
            delete(folder);
        }
    }

    private void replay(Replay replay) throws IOException {
        long start = System.nanoTime();
        replayAll(replay);
        double seconds = (System.nanoTime() - start) / 1e9;
        List<List<MappedRange>> layouts = List.of();
        if (stop.isRequested()) {
            replay.settle();
        } else {
            layouts = replay.checkAll();
        }
        Needs needs = new Needs(replay, seconds);
        summarise(replay, needs);
        new Report(options, replay, needs, verdict(replay)).write(options.report(), layouts);
        print("report    %s", options.report());
    }

    private void replayAll(Replay replay) throws IOException {
        Progress progress = new Progress(out, System.console() != null);
        try {
            for (int pass = 0; pass < options.repeat(); pass++) {
                replayOnce(replay, progress, pass);
            }
        } finally {
            progress.finish();
        }
    }

    private void replayOnce(Replay replay, Progress progress, int pass) throws IOException {
        try (TraceReader trace = new TraceReader(options.trace())) {
            while (!stop.isRequested() && requestNumber < options.requests()
                    && (request = trace.next()) != null) {
                requestNumber++;
                replay.serve(request);
                if (requestNumber % PROGRESS_REQUESTS == 0) {
                    StoreStats stats = replay.store().stats();
                    double fraction = Math.max((double) requestNumber / options.requests(),
                            (pass + trace.fractionRead()) / options.repeat());
                    progress.update(fraction, requestNumber,
                            stats.memoryRanges() + " + " + stats.fileRanges() + " ranges");
                }
            }
        }
    }

    private String verdict(Replay replay) {
        return String.format(Locale.ROOT, "%,d bytes were read, every one of them right. %s",
                replay.checkedBytes(), stop.isRequested()
                        ? "Stopped on request: the device was not read back."
                        : "The whole device was read back twice.");
    }

    private void summarise(Replay replay, Needs needs) {
        StoreStats stats = replay.store().stats();
        print("trace     %s: %,d requests: %,d W, %,d R, %,d D; seed %d",
                options.trace(), replay.requests(), replay.requests(TraceReader.Kind.WRITE),
                replay.requests(TraceReader.Kind.READ), replay.requests(TraceReader.Kind.DISCARD),
                options.seed());
        print("checked   %s", verdict(replay));
        print("work      %,d flushes (%,d killed) wrote %,d bytes; %,d compactions moved %,d bytes"
                        + " and freed %d segments; %d snapshots (%d given up)",
                stats.flushes(), replay.killedFlushes(), stats.flushedBytes(),
                replay.latencies().of(Operation.COMPACT).getTotalCount(), stats.movedBytes(),
                stats.freedSegments(), replay.snapshots(), replay.snapshotsGivenUp());
        for (Operation operation : Operation.values()) {
            summarise(operation, replay.latencies().of(operation));
        }
        needs.table().forEach((name, answer) -> print("%-9s %s", name, answer));
    }

    private void summarise(Operation operation, Histogram nanos) {
        print("  %-9s %8d; us: mean %.1f, median %.1f, 99%% %.1f, 99.9%% %.1f, max %.1f",
                operation, nanos.getTotalCount(), nanos.getMean() / 1e3,
                nanos.getValueAtPercentile(50) / 1e3, nanos.getValueAtPercentile(99) / 1e3,
                nanos.getValueAtPercentile(99.9) / 1e3, nanos.getMaxValue() / 1e3);
    }

    /** Shows that all buffers and all native memory have been given back. */
    private void checkNothingLeft(Replay replay) {
        long closed = System.nanoTime();
        Difference.check("buffers in use", replay.buffers().inUse(), 0L);
        print("buffers   0 of %,d in use", replay.buffers().allocated());
        if (stop.isRequested()) {
            return;
        }
        // Only a sweep that comes after the end of the maps can tell.
        long bytes = NativeMemory.bytesInUse();
        while (NativeMemory.millisSinceSweep() >= (System.nanoTime() - closed) / 1_000_000) {
            sleep();
            bytes = NativeMemory.bytesInUse();
        }
        Difference.check("native bytes in use after the maps are gone", bytes, 0L);
        print("native    0 bytes in use after the maps are gone");
    }

    private static void delete(Path folder) throws IOException {
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder)) {
            for (Path file : files) {
                Files.delete(file);
            }
        }
        Files.delete(folder);
    }

    private static void sleep() {
        try {
            Thread.sleep(100);
        } catch (InterruptedException e) {
            throw new IllegalStateException("interrupted", e);
        }
    }

    private void print(String format, Object... values) {
        out.printf(Locale.ROOT, format + "%n", values);
    }
}
