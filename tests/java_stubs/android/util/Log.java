// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.util;

public final class Log {
    private Log() {}

    public static int e(String tag, String msg) {
        System.err.println("E " + tag + ": " + msg);
        return 0;
    }

    public static int w(String tag, String msg, Throwable tr) {
        System.err.println("W " + tag + ": " + msg + ": " + tr);
        return 0;
    }
}
