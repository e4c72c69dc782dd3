package stor.device.replay;

import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * Turns Ctrl-C into a request to stop, and keeps the JVM alive until that is done. What takes long
 * calls {@link #check} between any two of its steps.
 */
class StopSignal implements AutoCloseable {
    private static final int PATIENCE_SECONDS = 30;

    private final CountDownLatch done = new CountDownLatch(1);
    private final Thread hook = new Thread(this::stop, "stop signal");
    private volatile boolean requested;

    /** Ends what was under way. */
    static final class Stopped extends RuntimeException {
        private static final long serialVersionUID = 1L;

        Stopped() {
            super("stopped on request", null, false, false);
        }
    }

    StopSignal() {
        Runtime.getRuntime().addShutdownHook(hook);
    }

    boolean isRequested() {
        return requested;
    }

    /** Throws {@link Stopped} once a stop is requested. */
    void check() {
        if (requested) {
            throw new Stopped();
        }
    }

    /** Does what Ctrl-C does, but for the end of the JVM. */
    void request() {
        requested = true;
    }

    /** Lets the JVM go. */
    @Override
    public void close() {
        done.countDown();
        try {
            Runtime.getRuntime().removeShutdownHook(hook);
        } catch (IllegalStateException e) {
            // The JVM is on its way down, and the hook has nothing left to wait for.
            requested = true;
        }
    }

    private void stop() {
        requested = true;
        System.err.println("replay: stopping");
        try {
            if (!done.await(PATIENCE_SECONDS, TimeUnit.SECONDS)) {
                System.err.println("replay: did not stop in " + PATIENCE_SECONDS + " s");
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }
}
