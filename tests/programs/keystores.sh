#!/bin/bash
# shellcheck disable=SC2154  # $work is of support.sh
# Java's keystores, made and read by its keytool.

# A keystore of a kind that Java has, with a key and the certificate of another authority, is imported.
import_keystore() {
    local kind=$1
    shift
    keytool -genkeypair -alias "java-${kind,,}" -keyalg EC -dname "CN=$kind.example.com" -keystore "of-java.$kind" \
        -storetype "$kind" -storepass:file in-password -keypass:file in-password &&
        keytool -importcert -noprompt -alias root -file root.pem -keystore "of-java.$kind" -storetype "$kind" \
            -storepass:file in-password &&
        "$@" import "of-java.$kind" --in-password-file in-password && rm "of-java.$kind"
}

# What was imported is exported, listed, and converted into Java's own form.
read_export() {
    "$@" export 'certificates/local/java-jks*' --format p12 --out-password-file in-password -f -o for-java.p12 &&
        keytool -list -keystore for-java.p12 -storepass:file in-password &&
        keytool -importkeystore -noprompt -srckeystore for-java.p12 -srcstorepass:file in-password \
            -destkeystore for-java.jks -deststoretype JKS -deststorepass:file in-password &&
        "$@" import for-java.jks --in-password-file in-password && rm for-java.p12 for-java.jks
}

# Without a key beside it, it is an authority to trust.
read_authority() {
    "$@" export 'certificates/remote/root-*' --format p12 --out-password-file in-password -o root.p12 &&
        keytool -list -keystore root.p12 -storepass:file in-password && rm root.p12
}

wrong_keystore_password() {
    keytool -genkeypair -alias other -keyalg EC -dname CN=other -keystore other.jks -storetype JKS \
        -storepass:file in-password -keypass:file in-password 2>/dev/null
    "$@" import other.jks --in-password-file wrong
    rm other.jks
}

try_keystores() {
    local open=(fstore -D /srv/keystores --password-file "$work/password") kind
    mkdir -m 700 /srv/keystores
    # As fstore tells it, whatever the locale is.
    export JAVA_TOOL_OPTIONS=-Dfile.encoding=UTF-8
    "${open[@]}" -q init --cost 14
    printf '\xfe\xed\xfe\xed' >any.jks
    expect "keys of a keystore go to no disk" "there is no place in memory" \
        "${open[@]}" import any.jks --in-password-file wrong
    rm any.jks
    mount -t tmpfs tmpfs /dev/shm  # of this name space
    (umask 077 && : >in-password)
    for kind in JCEKS PKCS12 JKS; do
        printf 'secret-1' >in-password
        [ $kind != JKS ] || printf 'gehéim€1' >in-password  # the others take ASCII alone
        expect "fstore imports a keystore of Java's, $kind" "added: certificates/local/java-${kind,,}-" \
            import_keystore "$kind" "${open[@]}"
    done
    printf 'secret-1' >in-password
    expect "its other certificate is there once" "certificates/remote/root-" "${open[@]}" ls certificates/remote
    expect "keytool lists PKCS#12" "PrivateKeyEntry" read_export "${open[@]}"
    expect "keytool converts it without loss" "present: keys/java-jks-" read_export "${open[@]}"
    expect "keytool trusts a certificate alone" "trustedCertEntry" read_authority "${open[@]}"
    expect "the password of a keystore is wrong" "wrong password for this Java keystore" \
        wrong_keystore_password "${open[@]}"
    unset JAVA_TOOL_OPTIONS
    rm in-password
}
