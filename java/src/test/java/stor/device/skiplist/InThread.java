package stor.device.skiplist;

import java.util.concurrent.Callable;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.FutureTask;

/** Runs code on a thread of its own. */
final class InThread {
    private static final long DEFAULT_STACK = 0;

    private InThread() {
    }

    /** Runs code on a new thread, to the end, and passes on its result or what it throws. */
    static <T> T call(Callable<T> body) throws Exception {
        return call(DEFAULT_STACK, body);
    }

    /** As above, on a stack of the given size. */
    static <T> T call(long stackBytes, Callable<T> body) throws Exception {
        return join(start(stackBytes, body));
    }

    /** Starts code on a new thread. */
    static <T> FutureTask<T> start(Callable<T> body) {
        return start(DEFAULT_STACK, body);
    }

    /** Waits for the end of code that was started. */
    static <T> T join(FutureTask<T> task) throws Exception {
        try {
            return task.get();
        } catch (ExecutionException e) {
            if (e.getCause() instanceof Exception) {
                throw (Exception) e.getCause();
            }
            throw (Error) e.getCause();
        }
    }

    private static <T> FutureTask<T> start(long stackBytes, Callable<T> body) {
        FutureTask<T> task = new FutureTask<>(body);
        new Thread(null, task, "test", stackBytes).start();
        return task;
    }
}
