package stor.device.replay;

import java.io.IOException;
import java.io.PrintStream;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import stor.device.replay.Figures.Figure;
import stor.device.replay.Figures.Section;
import stor.device.skiplist.NativeMemory;

/** The main program: replays a trace, checks what is read, and says what such a load needs. */
public final class TraceReplay {
    private static final int RIGHT = 0;
    private static final int WRONG = 1;
    private static final int UNUSABLE = 2;
    private static final int STOPPED = 130;

    private static final int PROGRESS_REQUESTS = 64;
    /**
     * With less room than this, what goes wrong is laid to that: where a file system writes to a new
     * place what changes in a mapped file, its end shows as an error in the middle of anything.
     */
    private static final long ALMOST_FULL = 16 << 20;

    private final ReplayOptions options;
    private final PrintStream out;
    private final PrintStream err;
    private final StopSignal stop;
    private final Progress progress;
    private final TraceLoad load = new TraceLoad();
    private List<AddressPicture> pictures = List.of();
    private Request request;
    private long requestNumber;
    private long badLines;
    private int devices;
    private String failure = "";

    private TraceReplay(ReplayOptions options, PrintStream out, PrintStream err, StopSignal stop) {
        this.options = options;
        this.out = out;
        this.err = err;
        this.stop = stop;
        progress = new Progress(out, System.console() != null);
    }

    /**
     * Runs the program and ends the JVM with its exit status.
     *
     * @param args the command line; {@code --help} explains it
     */
    public static void main(String[] args) {
        int status = run(args, System.out, System.err);
        if (status == RIGHT && System.out.checkError()) {
            System.err.println("replay: the standard output cannot be written");
            status = UNUSABLE;
        }
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
        try (StopSignal stop = new StopSignal()) {
            return run(args, out, err, stop);
        }
    }

    /** The same with a given signal, which may come from a test. */
    static int run(String[] args, PrintStream out, PrintStream err, StopSignal stop) {
        try {
            ReplayOptions options = ReplayOptions.parse(args);
            if (options.help()) {
                out.print(ReplayOptions.usage());
                return RIGHT;
            }
            if (!options.compared().isEmpty()) {
                out.print(Figures.compare(options.compared().get(0), options.compared().get(1)));
                return RIGHT;
            }
            return new TraceReplay(options, out, err, stop).run();
        } catch (IllegalArgumentException e) {
            err.println("replay: " + e.getMessage());
            err.println("replay: --help lists the options");
        } catch (IOException | LinkageError e) {
            err.println("replay: " + reason(e));
        } catch (StopSignal.Stopped e) {
            err.println("replay: stopped before the first request");
            return STOPPED;
        }
        return UNUSABLE;
    }

    // --- The course of a run ---------------------------------------------------------------------

    private int run() throws IOException {
        List<OutputFile> outputs = checkOutputs();
        checkTrace();
        try (RequestStream first = openTrace()) {
            // Before anything is made: a trace that cannot be read leaves nothing behind.
            request = first.next();
            Path folder = makeFolder();
            try {
                return replayIn(folder, first, outputs);
            } finally {
                progress.finish();
                delete(folder);
            }
        }
    }

    private int replayIn(Path folder, RequestStream first, List<OutputFile> outputs)
            throws IOException {
        int status;
        Figures figures;
        Replay replay = new Replay(options, folder, stop);
        try {
            long start = System.nanoTime();
            status = work(replay, first);
            double seconds = (System.nanoTime() - start) / 1e9;
            figures = new RunFigures(options, load, replay).all(
                    verdict(replay), seconds, badLines, devices);
            progress.finish();
        } finally {
            close(replay);
        }
        if (status == RIGHT) {
            status = checkNothingLeft(replay);
        }
        summarise(figures, replay);
        outputs.get(0).write(
                new Report(options, load, replay, figures, pictures).html());
        print("%-10s %s", "report", options.report());
        if (options.json() != null) {
            outputs.get(1).write(figures.json());
            print("%-10s %s", "figures", options.json());
        }
        return status;
    }

    /** After a failure, say of a full disk, closing may fail as well: there is a report even so. */
    private void close(Replay replay) throws IOException {
        try {
            replay.close();
        } catch (IOException | RuntimeException e) {
            if (failure.isEmpty()) {
                throw e;
            }
        }
    }

    /** Does all the work, as far as that gets; gives the exit status. */
    private int work(Replay replay, RequestStream first) {
        try {
            replayAll(replay, first);
            pictures = replay.checkAll(progress);
            return RIGHT;
        } catch (StopSignal.Stopped e) {
            failure = "Stopped on request after " + count(replay.requests()) + ".";
            return STOPPED;
        } catch (IOException | OutOfMemoryError e) {
            return fail(UNUSABLE, "Ended after " + count(replay.requests()) + ": " + reason(e)
                    + advice(e));
        } catch (RuntimeException | InternalError e) {
            long room = options.folder().toFile().getUsableSpace();
            if (!(e instanceof Difference) && room < ALMOST_FULL) {
                return fail(UNUSABLE, "Ended after " + count(replay.requests()) + ": " + reason(e)
                        + "; " + options.folder() + " has room for " + room
                        + " bytes: --folder names another place");
            }
            return fail(WRONG, String.format(Locale.ROOT, "Seed %d, request %d, %s: %s",
                    options.seed(), requestNumber, request,
                    e instanceof Difference ? e.getMessage() : e.toString()));
        }
    }

    private int fail(int status, String reason) {
        failure = reason;
        progress.finish();
        err.println("replay: " + failure);
        return status;
    }

    private void replayAll(Replay replay, RequestStream first) throws IOException {
        progress.begin("replay", "requests");
        try {
            replayOnce(replay, first, 0);
        } finally {
            badLines = first.badLines();
            devices = first.devices();
        }
        for (int pass = 1; pass < options.repeat(); pass++) {
            try (RequestStream again = openTrace()) {
                request = again.next();
                replayOnce(replay, again, pass);
            }
        }
    }

    /** Replays a trace whose first request has been read. */
    private void replayOnce(Replay replay, RequestStream trace, int pass) throws IOException {
        for (; request != null && requestNumber < options.requests(); request = trace.next()) {
            requestNumber++;
            replay.serve(request);
            if (pass == 0) {
                load.add(request);
            }
            if (requestNumber % PROGRESS_REQUESTS == 0) {
                progress.update(fraction(trace, pass), requestNumber);
            }
        }
    }

    private double fraction(RequestStream trace, int pass) {
        double ofRequests = options.requests() == Long.MAX_VALUE ? Double.NaN
                : (double) requestNumber / options.requests();
        double ofTrace = (pass + trace.fractionRead()) / options.repeat();
        return Double.isNaN(ofRequests) ? ofTrace
                : Double.isNaN(ofTrace) ? ofRequests : Math.max(ofRequests, ofTrace);
    }

    // --- Before it -------------------------------------------------------------------------------

    private RequestStream openTrace() {
        return new RequestStream(options.trace(), options.selection(), stop);
    }

    private List<OutputFile> checkOutputs() throws IOException {
        List<OutputFile> outputs = new ArrayList<>();
        outputs.add(new OutputFile("--report", options.report(), Report.MARK));
        if (options.json() != null) {
            outputs.add(new OutputFile("--json", options.json(), Figures.MARK));
            if (options.json().toAbsolutePath().normalize().equals(
                    options.report().toAbsolutePath().normalize())) {
                throw new IOException("--json: " + options.json()
                        + ": is the report (expected: another file)");
            }
        }
        for (OutputFile output : outputs) {
            output.check();
        }
        return outputs;
    }

    private void checkTrace() throws IOException {
        if (options.repeat() > 1 && !Files.isRegularFile(options.trace())) {
            throw new IOException("--repeat: " + options.repeat() + " (expected: 1 for "
                    + options.trace() + ", which can be read once only)");
        }
    }

    private Path makeFolder() throws IOException {
        if (!Files.isDirectory(options.folder())) {
            throw new IOException("--folder: " + options.folder() + ": no such folder");
        }
        try {
            return Files.createTempDirectory(options.folder(), "block-store-");
        } catch (IOException e) {
            throw new IOException("--folder: " + options.folder() + ": takes no files ("
                    + reason(e) + ")", e);
        }
    }

    // --- After it --------------------------------------------------------------------------------

    /** Shows that all buffers and all native memory have been given back. */
    private int checkNothingLeft(Replay replay) {
        long closed = System.nanoTime();
        try {
            Difference.check("buffers in use", replay.buffers().inUse(), 0L);
            // Only a sweep that comes after the end of the maps can tell.
            long bytes = NativeMemory.bytesInUse();
            while (NativeMemory.millisSinceSweep() >= (System.nanoTime() - closed) / 1_000_000) {
                stop.check();
                Thread.sleep(100);
                bytes = NativeMemory.bytesInUse();
            }
            Difference.check("native bytes in use after the maps are gone", bytes, 0L);
            return RIGHT;
        } catch (Difference e) {
            err.println("replay: " + e.getMessage());
            return WRONG;
        } catch (StopSignal.Stopped e) {
            return STOPPED;
        } catch (InterruptedException e) {
            throw new IllegalStateException("interrupted", e);
        }
    }

    private String verdict(Replay replay) {
        String checked = String.format(Locale.ROOT, "%,d bytes were read back and compared%s",
                replay.checkedBytes(), options.sampled()
                        ? ", a sample of one page in " + Mirror.SAMPLE : "");
        if (!failure.isEmpty()) {
            return checked + ". " + failure;
        }
        return checked + ", every one of them right; the whole "
                + (options.sampled() ? "sample" : "device") + " was read back " + replay.readBacks()
                + " times, the last time from the store closed and opened again.";
    }

    private void summarise(Figures figures, Replay replay) {
        print("%-10s %s", "trace", options.trace());
        print("%-10s %s", "load", RunFigures.mix(load));
        for (Section section : figures.sections()) {
            if (section.key().equals(RunFigures.RUN)) {
                print("%-10s %s", "checked", section.text("result"));
                continue;
            }
            if (section.key().endsWith("Latency")) {
                print("  %-10s %s", section.title(), latencies(section));
                continue;
            }
            print("%s", section.title());
            for (Figure figure : section.figures()) {
                print("  %-34s %s%s", figure.label(), figure.text(),
                        figure.note().isEmpty() ? "" : "  (" + figure.note() + ")");
            }
        }
        print("%-10s %d of %,d in use at the end", "buffers", replay.buffers().inUse(),
                replay.buffers().allocated());
    }

    /** In letters that every terminal has. */
    private static String latencies(Section section) {
        StringBuilder text = new StringBuilder();
        section.figures().forEach(figure -> text.append(text.isEmpty() ? "" : ", ")
                .append(figure.label()).append(' ').append(figure.text()));
        return text.toString();
    }

    /** Deletes a folder of files. */
    private static void delete(Path folder) throws IOException {
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder)) {
            for (Path file : files) {
                if (Files.isDirectory(file)) {
                    delete(file);
                } else {
                    Files.delete(file);
                }
            }
        }
        Files.delete(folder);
    }

    /** Says what went wrong, also where an exception names a file and nothing else. */
    private static String reason(Throwable failure) {
        String message = failure.getMessage();
        boolean says = message != null && message.contains(" ");
        // The figures of a store are in the report.
        return says ? message.replaceFirst(": StoreStats\\[.*", "") : failure.getClass().getSimpleName() + ": " + message;
    }

    private String advice(Throwable failure) {
        String text = String.valueOf(failure.getMessage());
        if (text.contains("No space left")) {
            return "; the store's files need more room than " + options.folder()
                    + " has: --folder names another place";
        }
        if (text.contains("memory limit")) {
            return "; --memory-limit gives the maps more";
        }
        if (text.contains("heap space")) {
            return "; java -Xmx gives the program more";
        }
        return "";
    }

    private static String count(long requests) {
        return String.format(Locale.ROOT, "%,d requests", requests);
    }

    private void print(String format, Object... values) {
        out.printf(Locale.ROOT, format + "%n", values);
    }
}
