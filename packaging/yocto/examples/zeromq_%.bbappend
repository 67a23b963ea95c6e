# A smaller ZeroMQ: plain TCP is all that the status manager asks of it. To be copied to a layer of yours, below
# recipes-connectivity/zeromq; not where other programs of the device want encryption.
PACKAGECONFIG:remove = "libsodium"
EXTRA_OECMAKE += " \
    -DENABLE_CURVE=OFF -DWITH_LIBSODIUM=OFF -DWITH_LIBBSD=OFF -DWITH_OPENPGM=OFF -DWITH_NORM=OFF \
    -DENABLE_DRAFTS=OFF -DENABLE_WS=OFF -DWITH_PERF_TOOL=OFF -DBUILD_STATIC=OFF \
"
