package stor.device.replay;

import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.TimeUnit;

/**
 * The requests of a trace, read ahead by a thread of its own: reading from a pipe may wait for as
 * long as the other side likes, and whoever takes the requests has to be able to stop meanwhile.
 * One thread takes the requests.
 */
final class RequestStream implements AutoCloseable {
    private static final int BATCH = 512;
    private static final int BATCHES = 16;
    private static final int POLL_MILLIS = 100;

    private final Path path;
    private final StopSignal stop;
    private final BlockingQueue<Batch> queue = new ArrayBlockingQueue<>(BATCHES);
    private final Thread thread;
    private volatile boolean closed;
    private volatile TraceReader reader;
    private Batch batch = new Batch(List.of(), false, null);
    private int next;

    /** Some requests, and how the trace ends if they are the last. */
    private record Batch(List<Request> requests, boolean last, Throwable failure) {
    }

    /** Work that may fail. */
    private interface Reading {
        void run() throws IOException, InterruptedException;
    }

    RequestStream(Path path, TraceReader.Selection selection, StopSignal stop) {
        this.path = path;
        this.stop = stop;
        thread = new Thread(() -> end(() -> readAll(selection)), "trace reader");
        thread.setDaemon(true);
        thread.start();
    }

    /**
     * Gives the next request, or null at the end of the trace.
     *
     * @throws IOException if the trace cannot be read, or has no request at all
     * @throws StopSignal.Stopped on request, also while waiting
     */
    Request next() throws IOException {
        while (next == batch.requests.size()) {
            if (batch.last) {
                if (batch.failure instanceof IOException) {
                    throw new IOException(batch.failure.getMessage(), batch.failure);
                }
                if (batch.failure != null) {
                    throw new IllegalStateException(path + ": " + batch.failure, batch.failure);
                }
                return null;
            }
            batch = take();
            next = 0;
        }
        return batch.requests.get(next++);
    }

    /** Tells how much of the file has been read, between 0 and 1; NaN if nobody can know. */
    double fractionRead() {
        return reader == null ? Double.NaN : reader.fractionRead();
    }

    long badLines() {
        return reader == null ? 0 : reader.badLines();
    }

    /** Counts the devices; to be asked at the end of the trace. */
    int devices() {
        return reader == null ? 0 : reader.devices();
    }

    /** Lets the thread go; it may still be waiting for its input, which does not keep the JVM. */
    @Override
    public void close() {
        closed = true;
        thread.interrupt();
    }

    private Batch take() {
        try {
            Batch taken = null;
            while (taken == null) {
                stop.check();
                taken = queue.poll(POLL_MILLIS, TimeUnit.MILLISECONDS);
            }
            return taken;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IllegalStateException("interrupted", e);
        }
    }

    private void readAll(TraceReader.Selection selection) throws IOException, InterruptedException {
        try (TraceReader trace = new TraceReader(path, selection)) {
            reader = trace;
            boolean more = true;
            for (boolean any = false; more && !closed; any = true) {
                List<Request> requests = new ArrayList<>(BATCH);
                try {
                    more = fill(requests, trace);
                } finally {
                    // Also those before a line that makes no sense.
                    queue.put(new Batch(requests, false, null));
                }
                if (!any && requests.isEmpty()) {
                    throw new IOException(path + ": " + trace.whyNone());
                }
            }
        }
    }

    private static boolean fill(List<Request> requests, TraceReader trace) throws IOException {
        while (requests.size() < BATCH) {
            Request request = trace.next();
            if (request == null) {
                return false;
            }
            requests.add(request);
        }
        return true;
    }

    /** Hands on how reading has ended. */
    private void end(Reading reading) {
        Throwable failure = null;
        try {
            reading.run();
        } catch (InterruptedException e) {
            return;
        } catch (IOException | RuntimeException | Error e) {
            failure = e;
        }
        try {
            queue.put(new Batch(List.of(), true, failure));
        } catch (InterruptedException e) {
            // Closed: nobody waits for it.
        }
    }
}
