package stor.device.replay;

import java.io.IOException;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.FutureTask;

/**
 * A thread for work that comes up again and again: a piece of work is dropped if the one before it
 * is still waiting or running. What a piece of work throws comes out with the next call. May also
 * do without a thread: then {@link #start} does the work itself. For one caller.
 */
final class BackgroundWorker implements AutoCloseable {
    private final ExecutorService thread;
    private Future<?> running;

    BackgroundWorker(String name, boolean inForeground) {
        thread = inForeground ? null
                : Executors.newSingleThreadExecutor(work -> new Thread(work, name));
    }

    /** Starts a piece of work, unless the last one is still under way. */
    void start(Callable<?> work) throws IOException {
        if (running != null && !running.isDone()) {
            return;
        }
        await();
        FutureTask<?> task = new FutureTask<>(work);
        running = task;
        if (thread == null) {
            task.run();
            await();
        } else {
            thread.execute(task);
        }
    }

    /** Waits for the work that was started. */
    void await() throws IOException {
        Future<?> last = running;
        running = null;
        if (last == null) {
            return;
        }
        try {
            last.get();
        } catch (ExecutionException e) {
            throw rethrow(e.getCause());
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new IOException("interrupted", e);
        }
    }

    /** Lets the work under way come to its end. */
    @Override
    public void close() {
        if (thread != null) {
            thread.shutdown();
        }
    }

    private static IOException rethrow(Throwable cause) {
        if (cause instanceof IOException) {
            return (IOException) cause;
        }
        if (cause instanceof RuntimeException) {
            throw (RuntimeException) cause;
        }
        if (cause instanceof Error) {
            throw (Error) cause;
        }
        return new IOException(cause);
    }
}
